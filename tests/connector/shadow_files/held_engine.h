#pragma once

#include <deque>
#include <utility>

#include "platform/rqe/RQE.h"

namespace connector::shadow_files {

/// An interpreter with a search path and nothing else.
class PathInterpreter final : public rqe::Interpreter
{
public:
    std::vector<std::string> path{"own", "lib"};
    std::string failure; ///< the class of the error that the next change raises

    std::vector<std::string> searchPath() override { return path; }
    void setSearchPath(const std::vector<std::string>& folders) override
    {
        if (!failure.empty())
            throw rqe::ScriptError(std::exchange(failure, {}), "asked to fail", "");
        path = folders;
    }

    rqe::EvalResult evaluate(std::string_view, const rqe::EvalOptions&, rqe::OutputSink&) override { return {}; }
    std::vector<matrix::ArrayPtr> call(std::string_view, rqe::Arguments, std::size_t, rqe::OutputSink&) override
    {
        return {};
    }
    matrix::ArrayPtr getVariable(std::string_view) override { return {}; }
    void setVariable(std::string_view, const vxArray&) override {}
    bool clearVariable(std::string_view) override { return false; }
    std::vector<rqe::VariableInfo> listVariables() override { return {}; }
    rqe::WorkspacePage listVariables(std::string_view, std::size_t, std::size_t) override { return {}; }
    rqe::ValueView inspect(const rqe::ValueQuery&) override { return {}; }
    void setInside(std::string_view, const rqe::Path&, const vxArray&) override {}
    rqe::VariableChanges changesSince(std::string_view) override { return {}; }
    rqe::Completions complete(std::string_view, std::size_t) override { return {}; }
    std::string currentFolder() override { return {}; }
    void setCurrentFolder(std::string_view) override {}
    std::vector<std::string> saveWorkspace(std::string_view, const std::vector<std::string>&) override { return {}; }
    std::vector<std::string> loadWorkspace(std::string_view) override { return {}; }
};

/// An engine that keeps its tasks until the test runs them.
class HeldEngine final : public rqe::RQE
{
public:
    std::size_t capacity = 100;
    bool closed = false;
    PathInterpreter interpreter;

    rqe::TaskId post(std::unique_ptr<rqe::Task> task) override
    {
        if (closed)
            throw rqe::EngineError(rqe::EngineError::Reason::closed, "closed");
        if (tasks_.size() >= capacity)
            throw rqe::EngineError(rqe::EngineError::Reason::queueFull, "full");
        tasks_.push_back(std::move(task));
        return ++lastId_;
    }

    /// Runs what waits, and what that posts.
    void run()
    {
        while (!tasks_.empty()) {
            const auto task = std::move(tasks_.front());
            tasks_.pop_front();
            try {
                task->run(interpreter);
                task->finish();
            } catch (...) {
                task->abandon(std::current_exception());
            }
            notify();
        }
    }

    void notify()
    {
        if (const auto listener = listener_.lock())
            listener->variablesMayHaveChanged();
    }

    std::size_t queued() const override { return tasks_.size(); }
    bool cancel(rqe::TaskId) override { return false; }
    bool interrupt() override { return false; }
    bool interrupt(rqe::TaskId) override { return false; }
    State state() const override { return closed ? State::closed : State::idle; }
    bool onInterpreterThread() const override { return false; }
    void addListener(const std::shared_ptr<rqe::EngineListener>& listener) override { listener_ = listener; }
    void removeListener(const rqe::EngineListener*) override { listener_.reset(); }

private:
    std::deque<std::unique_ptr<rqe::Task>> tasks_;
    rqe::TaskId lastId_ = 0;
    std::weak_ptr<rqe::EngineListener> listener_;
};

} // namespace connector::shadow_files
