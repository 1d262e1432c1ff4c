#pragma once

#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "connector/administration/Administration.h"

namespace connector::administration {

/// The commands of this process. All answers but those of `execute` are there at once.
class CONNECTOR_API AdministrationImpl final : public Administration
{
public:
    AdministrationImpl();
    ~AdministrationImpl() override;

    Future<std::string> execute(const std::string& name, std::vector<std::string>&& arguments) override;
    /// Fails with std::invalid_argument for a name that is empty or holds white space, and without an action.
    Future<bool> add(Command&& command) override;
    Future<bool> remove(const std::string& name) override;
    Future<std::vector<Command>> getAll() override;
    std::shared_ptr<Administration> getPtr() override;

private:
    mutable std::shared_mutex mutex_;
    /// By name, oldest first; the newest is in force.
    std::map<std::string, std::vector<Command>, std::less<>> commands_;
};

} // namespace connector::administration
