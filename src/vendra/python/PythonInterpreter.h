#pragma once

#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include "platform/rqe/Interpreter.h"
#include "vendra/python/Object.h"
#include "vendra/python/OutputCapture.h"

namespace vendra::python {

/// The embedded interpreter as tasks see it. Every operation needs the language's lock and the interpreter thread, but
/// looks may be on another thread with an object that captures nothing.
class PythonInterpreter : public rqe::Interpreter
{
public:
    /// `support`: the module of support/. `capture` must outlive this; null when this is for looks only: what may run
    /// code of scripts then throws std::logic_error.
    PythonInterpreter(Ref support, OutputCapture* capture) : support_(std::move(support)), capture_(capture) {}

    /// Called when what a task ran ends with the language's interrupt.
    void onInterrupted(std::function<void()> told) { interrupted_ = std::move(told); }

    rqe::EvalResult evaluate(std::string_view code, const rqe::EvalOptions& options, rqe::OutputSink& output) override;
    std::vector<matrix::ArrayPtr> call(std::string_view name, rqe::Arguments arguments, std::size_t results,
                                       rqe::OutputSink& output) override;
    matrix::ArrayPtr getVariable(std::string_view name) override;
    void setVariable(std::string_view name, const vxArray& value) override;
    bool clearVariable(std::string_view name) override;
    std::vector<rqe::VariableInfo> listVariables() override;
    rqe::WorkspacePage listVariables(std::string_view pattern, std::size_t offset, std::size_t limit) override;
    rqe::ValueView inspect(const rqe::ValueQuery& query) override;
    void setInside(std::string_view name, const rqe::Path& path, const vxArray& value) override;
    rqe::VariableChanges changesSince(std::string_view token) override;
    rqe::Completions complete(std::string_view text, std::size_t cursor) override;
    std::vector<std::string> searchPath() override;
    void setSearchPath(const std::vector<std::string>& folders) override;
    std::string currentFolder() override;
    void setCurrentFolder(std::string_view folder) override;
    std::vector<std::string> saveWorkspace(std::string_view file, const std::vector<std::string>& names) override;
    std::vector<std::string> loadWorkspace(std::string_view file) override;

private:
    /// Calls `body` with output going to `sink` (nowhere when null); an error of the language becomes a ScriptError.
    template <class Body>
    auto guarded(rqe::OutputSink* sink, Body body);
    /// The same for what runs no code of scripts: there is nothing to capture.
    template <class Body>
    auto looking(Body body);
    [[noreturn]] void throwScriptError();
    Ref callSupport(const char* name, std::initializer_list<PyObject*> arguments);
    /// Throws std::invalid_argument for what cannot be a variable's name.
    Ref variableName(std::string_view name);
    /// What support/browse.py answers, unless that is a refusal, which is thrown.
    Ref callBrowser(const char* name, std::initializer_list<PyObject*> arguments);
    void draw(rqe::ValueView& view, PyObject* name, PyObject* path, const rqe::PictureQuery& query);
    void convertValue(PyObject* value, rqe::EvalResult& result);

    /// Null, and why, when the value has no array form.
    static matrix::ArrayPtr arrayOrReason(PyObject* value, std::string& reason);

    Ref support_;
    OutputCapture* const capture_;
    std::function<void()> interrupted_;
};

template <class Body>
auto PythonInterpreter::guarded(rqe::OutputSink* sink, Body body)
{
    if (!capture_)
        throw std::logic_error("A look runs no code.");
    OutputCapture::Scope scope(*capture_, sink);
    try {
        auto result = body();
        scope.finish();
        return result;
    } catch (const ErrorSet&) {
        throwScriptError();
    }
}

template <class Body>
auto PythonInterpreter::looking(Body body)
{
    if (capture_)
        return guarded(nullptr, body);
    try {
        return body();
    } catch (const ErrorSet&) {
        throwScriptError();
    }
}

} // namespace vendra::python
