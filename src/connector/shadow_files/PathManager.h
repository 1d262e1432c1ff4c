#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/Export.h"
#include "platform/rqe/RQE.h"

namespace connector::shadow_files {

/// Folders in front of the interpreter's search path for as long as somebody wants them there. Threads: any.
class CONNECTOR_API PathManager
{
public:
    virtual ~PathManager() = default;

    /// Puts the folders, in their order, before all others, those added earlier included. What is posted to the engine
    /// from now on sees them; nothing is waited for. Throws rqe::EngineError when the engine's queue is full and
    /// std::length_error beyond kMaxAdditions of the implementation; nothing changes then.
    virtual void addPaths(const std::vector<std::string>& folders) = 0;
    /// Takes back the latest addition of just these folders; none is ignored. A folder stays while another addition
    /// names it. What the engine has no room for is done after its next task.
    virtual void removePaths(const std::vector<std::string>& folders) noexcept = 0;
};

class CONNECTOR_API PathManagerImpl final : public PathManager
{
public:
    static constexpr std::size_t kMaxAdditions = 10'000;

    /// `engine` may be empty or closed: additions are then kept and change nothing.
    explicit PathManagerImpl(boost::shared_ptr<rqe::RQE> engine);
    ~PathManagerImpl() override;

    void addPaths(const std::vector<std::string>& folders) override;
    void removePaths(const std::vector<std::string>& folders) noexcept override;

private:
    class State;
    class Update;

    const boost::shared_ptr<rqe::RQE> engine_;
    const std::shared_ptr<State> state_; ///< shared with what waits at the engine
};

} // namespace connector::shadow_files
