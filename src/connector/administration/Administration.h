#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "connector/Export.h"
#include "connector/core/Future.h"
#include "platform/us/ServiceInterface.h"

namespace connector::administration {

/// A command that a person or script runs by name. Copies share what they run.
class CONNECTOR_API Command
{
public:
    /// Answers the command's output. May throw; std::invalid_argument for wrong arguments. Must not block.
    using Action = std::function<Future<std::string>(std::vector<std::string> arguments)>;

    Command(std::string name, std::string description, Action action)
        : name_(std::move(name)), description_(std::move(description)), action_(std::move(action))
    {}

    const std::string& name() const noexcept { return name_; }
    /// One line: arguments and what it does.
    const std::string& description() const noexcept { return description_; }
    const Action& action() const noexcept { return action_; }

private:
    std::string name_;
    std::string description_;
    Action action_;
};

/// The commands of this process. Threads: any.
class CONNECTOR_API Administration : public std::enable_shared_from_this<Administration>
{
public:
    virtual ~Administration() = default;
    /// Fails with std::invalid_argument naming an unknown command, else with what the command throws.
    virtual Future<std::string> execute(const std::string& name, std::vector<std::string>&& arguments) = 0;
    /// True when the name was free. Otherwise the new command stands in for the earlier one, until it is removed.
    virtual Future<bool> add(Command&& command) = 0;
    /// Takes the oldest command of the name away, so that a provider may be replaced by its successor at any moment.
    /// False when there is none.
    virtual Future<bool> remove(const std::string& name) = 0;
    /// In name order.
    virtual Future<std::vector<Command>> getAll() = 0;
    virtual std::shared_ptr<Administration> getPtr() = 0;
};

/// Adds a family's commands while it lives.
class CONNECTOR_API CommandProvider
{
public:
    virtual ~CommandProvider();
    CommandProvider(const CommandProvider&) = delete;
    CommandProvider& operator=(const CommandProvider&) = delete;

protected:
    explicit CommandProvider(std::shared_ptr<Administration> administration);
    /// Throws what Administration::add fails with.
    void add(Command command);

private:
    std::shared_ptr<Administration> administration_;
    std::vector<std::string> names_;
};

} // namespace connector::administration

US_DECLARE_SERVICE_INTERFACE(connector::administration::Administration, "connector.administration.Administration/1.0")
