#pragma once

#include "platform/rqe/RQE.h"

/// An interpreter that answers with what it is asked, for fuzz targets.
class EchoInterpreter final : public rqe::Interpreter
{
public:
    rqe::EvalResult evaluate(std::string_view code, const rqe::EvalOptions& options, rqe::OutputSink& output) override
    {
        if (!code.empty())
            output.write(options.echo ? rqe::Stream::error : rqe::Stream::output, code);
        if (code.starts_with("input"))
            output.readLine(std::chrono::milliseconds(0));
        if (code.starts_with("raise"))
            throw rqe::ScriptError(std::string(code), std::string(code), std::string(code));
        rqe::EvalResult result;
        result.hasValue = options.wantValue;
        if (result.hasValue) {
            result.valueText = code;
            result.value = matrix::create(std::string_view(code));
        }
        return result;
    }
    std::vector<matrix::ArrayPtr> call(std::string_view name, rqe::Arguments arguments, std::size_t results,
                                       rqe::OutputSink& output) override
    {
        if (!name.empty())
            output.write(rqe::Stream::output, name);
        if (arguments.positional.size() > results)
            arguments.positional.resize(results);
        return std::move(arguments.positional);
    }
    matrix::ArrayPtr getVariable(std::string_view) override { return nullptr; }
    void setVariable(std::string_view, const vxArray& value) override { value_ = matrix::clone(value); }
    bool clearVariable(std::string_view) override { return value_ && (value_.reset(), true); }
    std::vector<rqe::VariableInfo> listVariables() override { return {}; }
    rqe::WorkspacePage listVariables(std::string_view pattern, std::size_t offset, std::size_t limit) override
    {
        rqe::WorkspacePage page;
        page.variables.push_back(infoOf(pattern, {offset, limit}));
        page.total = offset + limit;
        return page;
    }
    rqe::ValueView inspect(const rqe::ValueQuery& query) override
    {
        if (query.name.empty())
            throw std::out_of_range("There is no such variable.");
        rqe::ValueView view;
        view.info = infoOf(query.name, {query.offset, query.limit});
        for (const auto& step : query.path)
            view.children.push_back({step, infoOf(query.name, {})});
        view.childCount = query.path.size();
        view.rows = query.rows;
        view.columns = query.columns;
        view.valueMissing = value_ ? "" : query.name;
        if (value_)
            view.value = matrix::clone(*value_);
        view.rowNames = view.columnNames = {query.name};
        return view;
    }
    void setInside(std::string_view name, const rqe::Path&, const vxArray& value) override { setVariable(name, value); }
    rqe::VariableChanges changesSince(std::string_view token) override
    {
        rqe::VariableChanges changes;
        changes.token = token;
        changes.changed = {std::string(token)};
        return changes;
    }
    rqe::Completions complete(std::string_view text, std::size_t cursor) override
    {
        return {cursor, {std::string(text), std::string(text.substr(0, cursor))}};
    }
    std::vector<std::string> searchPath() override { return {}; }
    void setSearchPath(const std::vector<std::string>&) override {}
    std::string currentFolder() override { return folder_; }
    void setCurrentFolder(std::string_view folder) override { folder_ = folder; }
    std::vector<std::string> saveWorkspace(std::string_view, const std::vector<std::string>& names) override
    {
        return names;
    }
    std::vector<std::string> loadWorkspace(std::string_view) override { return {}; }

private:
    static rqe::VariableInfo infoOf(std::string_view name, std::vector<std::size_t> sizes)
    {
        rqe::VariableInfo info;
        info.name = info.preview = name;
        info.size = std::move(sizes);
        return info;
    }

    matrix::ArrayPtr value_;
    std::string folder_ = "/";
};

/// Runs each task as soon as it is posted.
class EchoEngine final : public rqe::RQE
{
public:
    rqe::TaskId post(std::unique_ptr<rqe::Task> task) override
    {
        try {
            task->run(interpreter_);
        } catch (...) {
            task->abandon(std::current_exception());
            return ++last_;
        }
        task->finish();
        return ++last_;
    }
    bool cancel(rqe::TaskId) override { return false; }
    bool interrupt() override { return false; }
    bool interrupt(rqe::TaskId) override { return false; }
    State state() const override { return State::idle; }
    std::size_t queued() const override { return 0; }
    bool onInterpreterThread() const override { return false; }
    void addListener(const std::shared_ptr<rqe::EngineListener>&) override {}
    void removeListener(const rqe::EngineListener*) override {}

private:
    EchoInterpreter interpreter_;
    rqe::TaskId last_ = 0;
};
