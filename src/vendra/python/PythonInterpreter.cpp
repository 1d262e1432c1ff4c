#include "vendra/python/PythonInterpreter.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <tuple>

#include "platform/fl/i18n.h"
#include "platform/rqe/ScriptError.h"
#include "vendra/python/Conversion.h"
#include "vendra/python/InterruptHandler.h"

namespace vendra::python {
namespace {

constexpr std::size_t kLongestValueText = 64 * 1024;

std::string cutText(std::string_view text)
{
    if (text.size() <= kLongestValueText)
        return std::string(text);
    std::size_t end = kLongestValueText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return std::string(text.substr(0, end));
}

Ref listOf(const std::vector<std::string>& texts)
{
    Ref list = Ref::own(PyList_New(static_cast<Py_ssize_t>(texts.size())));
    for (std::size_t i = 0; i < texts.size(); ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), makeText(texts[i]).release());
    return list;
}

PyObject* workspace()
{
    PyObject* main = PyImport_AddModule("__main__"); // borrowed
    if (!main)
        throw ErrorSet{};
    return PyModule_GetDict(main);
}

} // namespace

void PythonInterpreter::throwScriptError()
{
    Ref error = takeError();
    if (!error)
        throw rqe::ScriptError("SystemError", "an error was announced without being set", "");
    if (interrupted_ && PyErr_GivenExceptionMatches(error.get(), PyExc_KeyboardInterrupt))
        interrupted_();
    std::string type = Py_TYPE(error.get())->tp_name;
    // Twice: the description itself may be interrupted, or out of stack.
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            Ref described = callSupport("describe", {error.get()});
            std::string message = textOf(PyTuple_GET_ITEM(described.get(), 1));
            std::string trace = textOf(PyTuple_GET_ITEM(described.get(), 2));
            type = textOf(PyTuple_GET_ITEM(described.get(), 0));
            error = {};
            throw rqe::ScriptError(type, message, trace);
        } catch (const ErrorSet&) {
            PyErr_Clear();
        }
    }
    throw rqe::ScriptError(type, "(the error could not be described)", "");
}

Ref PythonInterpreter::callSupport(const char* name, std::initializer_list<PyObject*> arguments)
{
    Ref function = Ref::own(PyObject_GetAttrString(support_.get(), name));
    return Ref::own(PyObject_Vectorcall(function.get(), arguments.begin(), arguments.size(), nullptr));
}

Ref PythonInterpreter::variableName(std::string_view name)
{
    Ref text = makeText(name);
    Ref fault = callSupport("check_name", {text.get()});
    if (fault.get() != Py_None)
        throw std::invalid_argument(textOf(fault.get()));
    return text;
}

rqe::EvalResult PythonInterpreter::evaluate(std::string_view code, const rqe::EvalOptions& options,
                                            rqe::OutputSink& output)
{
    return guarded(&output, [&] {
        const InterruptHandler kept;
        Ref text = makeText(code);
        Ref file = makeText(options.fileName);
        Ref value = callSupport("evaluate", {text.get(), file.get(), options.wantValue ? Py_True : Py_False,
                                             options.echo ? Py_True : Py_False});
        rqe::EvalResult result;
        result.hasValue = value.get() != Py_None;
        if (result.hasValue)
            convertValue(value.get(), result);
        return result;
    });
}

void PythonInterpreter::convertValue(PyObject* value, rqe::EvalResult& result)
{
    Ref shown = Ref::own(PyObject_Repr(value));
    withText(shown.get(), [&](std::string_view utf8) { result.valueText = cutText(utf8); });
    result.value = arrayOrReason(value, result.conversionError);
}

matrix::ArrayPtr PythonInterpreter::arrayOrReason(PyObject* value, std::string& reason)
try {
    return toArray(value);
} catch (const ErrorSet&) {
    // An interrupt is the caller's wish, not a property of the value.
    if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt) || PyErr_ExceptionMatches(PyExc_SystemExit))
        throw;
    Ref error = takeError();
    try {
        Ref message = Ref::own(PyObject_Str(error.get()));
        reason = textOf(message.get());
    } catch (const ErrorSet&) {
        if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt))
            throw;
        PyErr_Clear(); // an error of a script's may have no text
    }
    if (reason.empty())
        reason = Py_TYPE(error.get())->tp_name;
    return nullptr;
}

std::vector<matrix::ArrayPtr> PythonInterpreter::call(std::string_view name, rqe::Arguments arguments,
                                                      std::size_t results, rqe::OutputSink& output)
{
    return guarded(&output, [&] {
        const InterruptHandler kept;
        Ref text = makeText(name);
        Ref function = callSupport("resolve", {text.get()});
        Ref values = Ref::own(PyTuple_New(static_cast<Py_ssize_t>(arguments.positional.size())));
        for (std::size_t i = 0; i < arguments.positional.size(); ++i)
            PyTuple_SET_ITEM(values.get(), static_cast<Py_ssize_t>(i),
                             toObject(arguments.positional[i].get()).release());
        Ref keywords = arguments.named.empty() ? Ref{} : Ref::own(PyDict_New());
        for (const auto& [keyword, argument] : arguments.named) {
            Ref key = makeText(keyword);
            check(PyDict_SetItem(keywords.get(), key.get(), toObject(argument.get()).get()));
        }
        arguments = {};
        Ref value = Ref::own(PyObject_Call(function.get(), values.get(), keywords.get()));

        std::vector<matrix::ArrayPtr> answer;
        if (results == 1)
            answer.push_back(toArray(value.get()));
        if (results > 1) {
            Ref wanted = Ref::own(PyLong_FromSize_t(results));
            Ref taken = callSupport("take_results", {value.get(), wanted.get()});
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(taken.get()); ++i)
                answer.push_back(toArray(PyList_GET_ITEM(taken.get(), i)));
        }
        return answer;
    });
}

matrix::ArrayPtr PythonInterpreter::getVariable(std::string_view name)
{
    return guarded(nullptr, [&]() -> matrix::ArrayPtr {
        Ref key = variableName(name);
        Ref value = Ref::share(PyDict_GetItemWithError(workspace(), key.get()));
        if (!value) {
            if (PyErr_Occurred())
                throw ErrorSet{};
            return nullptr;
        }
        return toArray(value.get());
    });
}

void PythonInterpreter::setVariable(std::string_view name, const vxArray& value)
{
    guarded(nullptr, [&] {
        Ref key = variableName(name);
        Ref object = toObject(&value);
        check(PyDict_SetItem(workspace(), key.get(), object.get()));
        return true;
    });
}

bool PythonInterpreter::clearVariable(std::string_view name)
{
    return guarded(nullptr, [&] {
        Ref key = variableName(name);
        int present = PyDict_Contains(workspace(), key.get());
        check(present);
        if (present)
            check(PyDict_DelItem(workspace(), key.get()));
        return present == 1;
    });
}

rqe::Completions PythonInterpreter::complete(std::string_view text, std::size_t cursor)
{
    if (cursor > text.size())
        throw std::invalid_argument("The cursor at byte " + std::to_string(cursor) + " is beyond the text of " +
                                    std::to_string(text.size()) + " bytes.");
    return looking([&] {
        Ref before = makeText(text.substr(0, cursor));
        Ref found = callSupport("complete", {before.get()});
        rqe::Completions completions;
        // What is not UTF-8 grows when it is replaced.
        completions.replaceFrom = cursor - std::min(cursor, textOf(PyTuple_GET_ITEM(found.get(), 0)).size());
        completions.candidates = textsOf(PyTuple_GET_ITEM(found.get(), 1));
        return completions;
    });
}

std::vector<std::string> PythonInterpreter::searchPath()
{
    return looking([&] { return textsOf(callSupport("search_path", {}).get()); });
}

void PythonInterpreter::setSearchPath(const std::vector<std::string>& folders)
{
    guarded(nullptr, [&] { return callSupport("set_search_path", {listOf(folders).get()}); });
}

std::string PythonInterpreter::currentFolder()
{
    std::error_code failure;
    std::filesystem::path folder = std::filesystem::current_path(failure);
    if (failure)
        throw rqe::ScriptError("FileNotFoundError", "The current folder is gone: " + failure.message(), "");
    return fl::i18n::toValidUtf8(folder.native());
}

void PythonInterpreter::setCurrentFolder(std::string_view folder)
{
    guarded(nullptr, [&] { return callSupport("set_current_folder", {makeText(folder).get()}); });
}

std::vector<std::string> PythonInterpreter::saveWorkspace(std::string_view file, const std::vector<std::string>& names)
{
    return guarded(nullptr, [&] {
        Ref path = makeText(file);
        Ref wanted = listOf(names);
        return textsOf(callSupport("save_workspace", {path.get(), wanted.get()}).get());
    });
}

std::vector<std::string> PythonInterpreter::loadWorkspace(std::string_view file)
{
    return guarded(nullptr, [&] { return textsOf(callSupport("load_workspace", {makeText(file).get()}).get()); });
}

} // namespace vendra::python
