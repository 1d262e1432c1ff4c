#include "connector/shadow_files/PathManager.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>

#include <boost/smart_ptr/weak_ptr.hpp>

#include "connector/common/Log.h"

namespace connector::shadow_files {
namespace {

using Folders = std::vector<std::string>;

} // namespace

/// What is wanted, and what of it the interpreter was told. At most one update waits at the engine: it takes what is
/// wanted when it runs, which is before all that is posted after it.
class PathManagerImpl::State final : public rqe::EngineListener, public std::enable_shared_from_this<State>
{
public:
    explicit State(boost::weak_ptr<rqe::RQE> engine) : engine_(std::move(engine)) {}

    void add(const Folders& folders)
    {
        std::lock_guard lock(mutex_);
        if (additions_.size() >= kMaxAdditions)
            throw std::length_error("The search path has been added to " + std::to_string(kMaxAdditions) +
                                    " times already.");
        additions_.push_back(folders);
        try {
            update();
        } catch (...) {
            additions_.pop_back();
            throw;
        }
    }

    void remove(const Folders& folders)
    {
        std::lock_guard lock(mutex_);
        const auto latest = std::find(additions_.rbegin(), additions_.rend(), folders);
        if (latest == additions_.rend())
            return;
        additions_.erase(std::next(latest).base());
        updateOrRetry();
    }

    /// Interpreter thread, inside a task.
    void apply(rqe::Interpreter& interpreter)
    {
        Folders before;
        Folders after;
        {
            std::lock_guard lock(mutex_);
            waiting_ = false;
            before = applied_;
            after = announced_ = wanted();
        }
        if (before == after)
            return;
        // The script may have changed its path meanwhile: only what was put there is taken off, once each.
        auto path = interpreter.searchPath();
        for (const auto& folder : before) {
            const auto found = std::find(path.begin(), path.end(), folder);
            if (found != path.end())
                path.erase(found);
        }
        path.insert(path.begin(), after.begin(), after.end());
        interpreter.setSearchPath(path);
        std::lock_guard lock(mutex_);
        applied_ = std::move(after);
    }

    /// An update did not happen; `again`: it may the next time.
    void failed(bool again)
    {
        std::lock_guard lock(mutex_);
        waiting_ = false;
        announced_ = applied_;
        retry_ = again;
    }

    void variablesMayHaveChanged() override
    {
        if (!retry_.exchange(false))
            return;
        std::lock_guard lock(mutex_);
        updateOrRetry();
    }

private:
    /// Each folder once, the latest addition's first.
    Folders wanted() const
    {
        Folders all;
        for (auto folders = additions_.rbegin(); folders != additions_.rend(); ++folders)
            for (const auto& folder : *folders)
                if (std::find(all.begin(), all.end(), folder) == all.end())
                    all.push_back(folder);
        return all;
    }

    void update();

    void updateOrRetry()
    {
        try {
            update();
        } catch (const std::exception&) {
            retry_ = true;
        }
    }

    const boost::weak_ptr<rqe::RQE> engine_;
    std::mutex mutex_;
    std::vector<Folders> additions_; ///< the latest last
    Folders announced_;              ///< wanted when the last update was posted or ran
    Folders applied_;                ///< in front of the path now
    bool waiting_ = false;           ///< an update is at the engine and has not begun
    std::atomic<bool> retry_{false}; ///< after the engine's next task
};

class PathManagerImpl::Update final : public rqe::Task
{
public:
    explicit Update(std::shared_ptr<State> state) : state_(std::move(state)) {}

    void run(rqe::Interpreter& interpreter) override { state_->apply(interpreter); }
    void finish() noexcept override {}
    void abandon(std::exception_ptr reason) noexcept override
    {
        // An interrupt was meant for something else. Any other failure would come again: it waits for the next change.
        bool again = false;
        try {
            std::rethrow_exception(reason);
        } catch (const rqe::EngineError&) {
        } catch (const rqe::ScriptError& error) {
            again = error.type() == "KeyboardInterrupt";
            if (!again)
                common::log("connector.shadowFiles", common::LogLevel::warning,
                            "The search path cannot be changed: " + error.type() + ": " + error.what());
        } catch (...) {
        }
        state_->failed(again);
    }

private:
    const std::shared_ptr<State> state_;
};

/// With the lock held. Its order before the engine's is safe: the engine calls back without its own.
void PathManagerImpl::State::update()
{
    auto now = wanted();
    if (now == announced_)
        return;
    const auto engine = engine_.lock();
    if (!waiting_ && engine) {
        try {
            engine->post(std::make_unique<Update>(shared_from_this()));
            waiting_ = true;
        } catch (const rqe::EngineError& error) {
            if (error.reason() != rqe::EngineError::Reason::closed)
                throw;
        }
    }
    announced_ = std::move(now);
}

PathManagerImpl::PathManagerImpl(boost::shared_ptr<rqe::RQE> engine)
    : engine_(std::move(engine)), state_(std::make_shared<State>(engine_))
{
    if (engine_)
        engine_->addListener(state_);
}

PathManagerImpl::~PathManagerImpl()
{
    if (engine_)
        engine_->removeListener(state_.get());
}

void PathManagerImpl::addPaths(const Folders& folders) { state_->add(folders); }

void PathManagerImpl::removePaths(const Folders& folders) noexcept { state_->remove(folders); }

} // namespace connector::shadow_files
