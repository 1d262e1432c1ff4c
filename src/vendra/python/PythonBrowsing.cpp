// What watchers of the workspace ask; the looking itself is done in support/.

#include <stdexcept>
#include <variant>

#include "platform/rqe/ScriptError.h"
#include "vendra/python/Conversion.h"
#include "vendra/python/PythonInterpreter.h"

namespace vendra::python {
namespace {

std::size_t countOf(PyObject* number)
{
    std::size_t count = PyLong_AsSize_t(number);
    if (count == static_cast<std::size_t>(-1) && PyErr_Occurred())
        throw ErrorSet{};
    return count;
}

Ref numberOf(std::size_t count) { return Ref::own(PyLong_FromSize_t(count)); }

Ref none() { return Ref::share(Py_None); }

PyObject* item(PyObject* tuple, Py_ssize_t position) { return PyTuple_GET_ITEM(tuple, position); } // borrowed

rqe::VariableInfo infoOf(PyObject* row)
{
    rqe::VariableInfo info;
    info.name = textOf(item(row, 0));
    info.type = textOf(item(row, 1));
    PyObject* sizes = item(row, 2);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(sizes); ++i)
        info.size.push_back(countOf(PyList_GET_ITEM(sizes, i)));
    info.preview = textOf(item(row, 3));
    info.bytes = countOf(item(row, 4));
    info.elementType = textOf(item(row, 5));
    return info;
}

std::vector<rqe::VariableInfo> infosOf(PyObject* rows)
{
    std::vector<rqe::VariableInfo> infos;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows); ++i)
        infos.push_back(infoOf(PyList_GET_ITEM(rows, i)));
    return infos;
}

Ref stepOf(const rqe::Step& step)
{
    if (const auto* position = std::get_if<std::int64_t>(&step))
        return Ref::own(PyLong_FromLongLong(*position));
    return makeText(std::get<std::string>(step));
}

Ref pathOf(const rqe::Path& path)
{
    Ref steps = Ref::own(PyList_New(static_cast<Py_ssize_t>(path.size())));
    for (std::size_t i = 0; i < path.size(); ++i)
        PyList_SET_ITEM(steps.get(), static_cast<Py_ssize_t>(i), stepOf(path[i]).release());
    return steps;
}

Ref rangeOf(const std::optional<rqe::Range>& range)
{
    if (!range)
        return none();
    return Ref::own(Py_BuildValue("(KK)", static_cast<unsigned long long>(range->from),
                                  static_cast<unsigned long long>(range->count)));
}

std::optional<rqe::Range> rangeOf(PyObject* pair)
{
    if (pair == Py_None)
        return std::nullopt;
    return rqe::Range{countOf(item(pair, 0)), countOf(item(pair, 1))};
}

/// None, and also a key that is a number beyond 64 bits, cannot be a step.
std::optional<rqe::Step> stepFrom(PyObject* step)
{
    if (step == Py_None)
        return std::nullopt;
    if (PyUnicode_Check(step))
        return textOf(step);
    int overflow = 0;
    const long long position = PyLong_AsLongLongAndOverflow(step, &overflow);
    if (position == -1 && PyErr_Occurred())
        throw ErrorSet{};
    return overflow == 0 ? std::optional<rqe::Step>(std::int64_t{position}) : std::nullopt;
}

} // namespace

Ref PythonInterpreter::callBrowser(const char* name, std::initializer_list<PyObject*> arguments)
{
    Ref answer = callSupport(name, arguments);
    const std::string code = textOf(item(answer.get(), 0));
    if (code == "found")
        return answer;
    const std::string message = textOf(item(answer.get(), 1));
    if (code == "notFound")
        throw std::out_of_range(message);
    if (code == "badRequest")
        throw std::invalid_argument(message);
    throw rqe::UnsteadyError(message);
}

std::vector<rqe::VariableInfo> PythonInterpreter::listVariables()
{
    return looking([&] { return infosOf(callSupport("list_variables", {}).get()); });
}

rqe::WorkspacePage PythonInterpreter::listVariables(std::string_view pattern, std::size_t offset, std::size_t limit)
{
    return looking([&] {
        Ref wanted = makeText(pattern);
        Ref first = numberOf(offset);
        Ref most = numberOf(limit);
        Ref found = callSupport("page_of_variables", {wanted.get(), first.get(), most.get()});
        return rqe::WorkspacePage{infosOf(item(found.get(), 1)), countOf(item(found.get(), 0))};
    });
}

rqe::ValueView PythonInterpreter::inspect(const rqe::ValueQuery& query)
{
    return looking([&] {
        Ref name = makeText(query.name);
        Ref path = pathOf(query.path);
        Ref rows = rangeOf(query.rows);
        Ref columns = rangeOf(query.columns);
        Ref offset = numberOf(query.offset);
        Ref limit = numberOf(query.limit);
        Ref bytes = numberOf(query.valueBytes);
        Ref answer = callBrowser(
            "browse", {name.get(), path.get(), rows.get(), columns.get(), offset.get(), limit.get(), bytes.get()});
        rqe::ValueView view;
        view.info = infoOf(item(answer.get(), 1));
        view.childCount = countOf(item(answer.get(), 2));
        PyObject* children = item(answer.get(), 3);
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(children); ++i) {
            PyObject* child = PyList_GET_ITEM(children, i);
            view.children.push_back({stepFrom(item(child, 0)), infoOf(item(child, 1))});
        }
        PyObject* part = item(answer.get(), 4);
        if (item(part, 1) == Py_None)
            view.value = arrayOrReason(item(part, 0), view.valueMissing);
        else
            view.valueMissing = textOf(item(part, 1));
        view.rows = rangeOf(item(part, 2));
        view.columns = rangeOf(item(part, 3));
        view.rowNames = textsOf(item(part, 4));
        view.columnNames = textsOf(item(part, 5));
        view.columnTypes = textsOf(item(part, 6));
        if (query.picture)
            draw(view, name.get(), path.get(), *query.picture);
        return view;
    });
}

void PythonInterpreter::draw(rqe::ValueView& view, PyObject* name, PyObject* path, const rqe::PictureQuery& query)
{
    Ref format = makeText(query.format == rqe::PictureFormat::png ? "png" : "svg");
    Ref dots = query.dots ? numberOf(*query.dots) : none();
    Ref bytes = numberOf(query.bytes);
    Ref answer = callBrowser("draw", {name, path, format.get(), dots.get(), bytes.get()});
    char* data = nullptr;
    Py_ssize_t size = 0;
    if (item(answer.get(), 1) == Py_None)
        view.pictureMissing = textOf(item(answer.get(), 2));
    else if (PyBytes_AsStringAndSize(item(answer.get(), 1), &data, &size) != 0)
        throw ErrorSet{};
    else
        view.picture = rqe::Picture{query.format, std::string(data, static_cast<std::size_t>(size))};
}

void PythonInterpreter::setInside(std::string_view name, const rqe::Path& path, const vxArray& value)
{
    if (path.empty())
        throw std::invalid_argument("A path into the variable is needed.");
    guarded(nullptr, [&] {
        Ref text = makeText(name);
        Ref steps = pathOf(path);
        Ref object = toObject(&value);
        return callBrowser("set_inside", {text.get(), steps.get(), object.get()});
    });
}

rqe::VariableChanges PythonInterpreter::changesSince(std::string_view token)
{
    return guarded(nullptr, [&] {
        Ref text = makeText(token);
        Ref found = callSupport("changes_since", {text.get()});
        rqe::VariableChanges changes;
        changes.token = textOf(item(found.get(), 0));
        changes.changed = textsOf(item(found.get(), 1));
        changes.removed = textsOf(item(found.get(), 2));
        changes.restarted = item(found.get(), 3) == Py_True;
        return changes;
    });
}

} // namespace vendra::python
