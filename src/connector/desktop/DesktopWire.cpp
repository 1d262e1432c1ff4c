#include "connector/desktop/DesktopWire.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <openssl/evp.h>

#include "connector/desktop/DesktopMessages.h"
#include "connector/desktop/VariableWatch.h"
#include "connector/json/ArrayJson.h"
#include "connector/json/JsonText.h"
#include "connector/json/Members.h"

namespace connector::desktop::v1 {
namespace {

using json::Members;
using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Poco::JSON::Object;

constexpr std::int64_t kMaxListed = 10'000;
constexpr std::int64_t kMaxChildren = 1'000;
constexpr std::int64_t kMaxCandidates = 1'000;
constexpr std::int64_t kMaxPosition = std::int64_t{1} << 53;
constexpr std::size_t kMaxPath = 64;
constexpr std::int64_t kMinDpi = 10;
constexpr std::int64_t kMaxDpi = 600;

std::size_t optionalCount(Members& members, const std::string& name, std::int64_t fallback, std::int64_t minimum,
                          std::int64_t maximum)
{
    return static_cast<std::size_t>(members.optionalInteger(name, fallback, minimum, maximum));
}

Var elementOf(const Array& array, std::size_t position) { return array.get(static_cast<unsigned>(position)); }

std::optional<rqe::Range> optionalRange(Members& members, const std::string& name)
{
    const auto pair = members.optionalArray(name);
    if (!pair)
        return std::nullopt;
    return json::within(name, [&] {
        if (pair->size() != 2)
            throw json::JsonError("expected [from, count] but found " + std::to_string(pair->size()) + " elements");
        const auto number = [&](std::size_t position) {
            return json::within(position, [&] { return json::asInteger(elementOf(*pair, position), 0, kMaxPosition); });
        };
        return std::optional(rqe::Range{static_cast<std::size_t>(number(0)), static_cast<std::size_t>(number(1))});
    });
}

rqe::Step stepOf(const Var& value)
{
    if (value.type() == typeid(std::string))
        return json::asString(value);
    if (value.isEmpty() || value.isBoolean() || !value.isNumeric())
        throw json::JsonError("expected a position or a name but found " + json::describe(value));
    return json::asInteger(value);
}

rqe::Path optionalPath(Members& members)
{
    rqe::Path path;
    const auto steps = members.optionalArray("path");
    if (!steps)
        return path;
    json::within(std::string("path"), [&] {
        if (steps->size() > kMaxPath)
            throw json::JsonError("expected at most " + std::to_string(kMaxPath) + " steps but found " +
                                  std::to_string(steps->size()));
        for (std::size_t i = 0; i < steps->size(); ++i)
            path.push_back(json::within(i, [&] { return stepOf(elementOf(*steps, i)); }));
    });
    return path;
}

std::optional<rqe::PictureQuery> optionalPicture(Members& members)
{
    const auto format = members.optionalString("picture");
    if (!members.has("picture"))
        return std::nullopt;
    rqe::PictureQuery picture;
    if (format == "svg")
        picture.format = rqe::PictureFormat::svg;
    else if (format != "png")
        throw json::JsonError("picture: expected \"png\" or \"svg\" but found \"" + format + "\"");
    if (members.has("dpi"))
        picture.dots = static_cast<unsigned>(members.requireInteger("dpi", kMinDpi, kMaxDpi));
    return picture;
}

std::unique_ptr<Workspace> decodeWorkspace(Members& members)
{
    auto message = std::make_unique<Workspace>();
    message->offset = optionalCount(members, "offset", 0, 0, kMaxPosition);
    message->limit = optionalCount(members, "limit", 1'000, 1, kMaxListed);
    message->pattern = members.optionalString("pattern");
    return message;
}

std::unique_ptr<Variable> decodeVariable(Members& members)
{
    auto message = std::make_unique<Variable>();
    message->query.name = members.requireString("name");
    message->query.path = optionalPath(members);
    message->query.rows = optionalRange(members, "rows");
    message->query.columns = optionalRange(members, "columns");
    message->query.offset = optionalCount(members, "offset", 0, 0, kMaxPosition);
    message->query.limit = optionalCount(members, "limit", 100, 0, kMaxChildren);
    message->query.picture = optionalPicture(members);
    return message;
}

std::unique_ptr<SetVariable> decodeSetVariable(Members& members)
{
    auto message = std::make_unique<SetVariable>();
    message->name = members.requireString("name");
    message->path = optionalPath(members);
    const auto value = members.requireValue("value");
    message->value = json::within(std::string("value"), [&] { return json::fromJson(value); });
    return message;
}

std::unique_ptr<ClearVariable> decodeClearVariable(Members& members)
{
    auto message = std::make_unique<ClearVariable>();
    message->name = members.requireString("name");
    return message;
}

std::unique_ptr<VariableChange> decodeVariableChange(Members& members)
{
    auto message = std::make_unique<VariableChange>();
    message->subscribe = members.optionalBool("subscribe", true);
    message->since = members.optionalString("since");
    message->wait = std::chrono::milliseconds(members.optionalInteger("wait", 0, 0, VariableWatch::kMaxWait.count()));
    return message;
}

std::unique_ptr<TabCompletion> decodeTabCompletion(Members& members)
{
    auto message = std::make_unique<TabCompletion>();
    message->text = members.requireString("text");
    if (members.has("cursor"))
        message->cursor = static_cast<std::size_t>(members.requireInteger("cursor", 0, kMaxPosition));
    message->limit = optionalCount(members, "limit", 200, 1, kMaxCandidates);
    return message;
}

std::unique_ptr<CurrentFolder> decodeCurrentFolder(Members& members)
{
    auto message = std::make_unique<CurrentFolder>();
    if (members.has("path"))
        message->path = members.requireString("path");
    return message;
}

Poco::Int64 number(std::size_t count) { return static_cast<Poco::Int64>(count); }

Array::Ptr rangeToJson(const rqe::Range& range)
{
    Array::Ptr pair = new Array;
    pair->add(number(range.from));
    pair->add(number(range.count));
    return pair;
}

Var stepToJson(const rqe::Step& step)
{
    return std::visit([](const auto& value) { return Var(value); }, step);
}

void setInfo(Object& object, const rqe::VariableInfo& info)
{
    Array::Ptr size = new Array;
    for (const auto count : info.size)
        size->add(number(count));
    object.set("name", info.name);
    object.set("class", info.type);
    object.set("size", size);
    if (!info.elementType.empty())
        object.set("elementClass", info.elementType);
    object.set("bytes", number(info.bytes));
    object.set("preview", info.preview);
}

/// The value, unless its text is longer than a watcher wants to read; else why there is none.
void setValue(Object& object, const rqe::ValueView& view)
{
    const std::size_t longest = rqe::ValueQuery().valueBytes;
    auto missing = view.valueMissing;
    Var value;
    if (view.value) {
        value = json::toJson(*view.value);
        if (json::write(value).size() > longest) {
            value = Var();
            missing = "the value takes more than " + std::to_string(longest) + " bytes";
        }
    }
    object.set("value", value);
    if (!missing.empty()) {
        object.set("valueMissing", missing);
        return;
    }
    if (view.rows)
        object.set("rows", rangeToJson(*view.rows));
    if (view.columns)
        object.set("columns", rangeToJson(*view.columns));
    if (!view.columnNames.empty()) {
        object.set("columnNames", json::makeArray(view.columnNames));
        object.set("columnClasses", json::makeArray(view.columnTypes));
    }
    if (!view.rowNames.empty())
        object.set("rowNames", json::makeArray(view.rowNames));
}

std::string base64(const std::string& bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0'); // the encoder ends it with a zero
    const int size =
        ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

void setPicture(Object& object, const rqe::ValueView& view)
{
    if (!view.pictureMissing.empty())
        object.set("pictureMissing", view.pictureMissing);
    if (!view.picture)
        return;
    auto picture = json::makeObject();
    if (view.picture->format == rqe::PictureFormat::png) {
        picture->set("mediaType", "image/png");
        picture->set("data", base64(view.picture->data));
    } else {
        picture->set("mediaType", "image/svg+xml");
        picture->set("text", view.picture->data);
    }
    object.set("picture", picture);
}

Object::Ptr encodeWorkspaceResponse(const WorkspaceResponse& response)
{
    auto object = json::makeObject();
    Array::Ptr variables = new Array;
    for (const auto& info : response.page.variables) {
        auto variable = json::makeObject();
        setInfo(*variable, info);
        variables->add(variable);
    }
    object->set("variables", variables);
    object->set("total", number(response.page.total));
    return object;
}

Object::Ptr encodeVariableResponse(const VariableResponse& response)
{
    auto object = json::makeObject();
    const auto& view = response.view;
    setInfo(*object, view.info);
    Array::Ptr path = new Array;
    for (const auto& step : response.path)
        path->add(stepToJson(step));
    object->set("path", path);
    Array::Ptr children = new Array;
    for (const auto& child : view.children) {
        auto entry = json::makeObject();
        entry->set("step", child.step ? stepToJson(*child.step) : Var());
        setInfo(*entry, child.info);
        children->add(entry);
    }
    object->set("children", children);
    object->set("childCount", number(view.childCount));
    setValue(*object, view);
    setPicture(*object, view);
    return object;
}

Object::Ptr encodeTabCompletionResponse(const TabCompletionResponse& response)
{
    auto object = json::makeObject();
    object->set("replaceFrom", number(response.replaceFrom));
    object->set("candidates", json::makeArray(response.candidates));
    object->set("total", number(response.total));
    return object;
}

template <class M, class T>
Object::Ptr encodeOne(const char* name, T M::*member, const M& response)
{
    auto object = json::makeObject();
    object->set(name, response.*member);
    return object;
}

} // namespace

Object::Ptr encodeChanges(const rqe::VariableChanges& changes)
{
    auto object = json::makeObject();
    object->set("token", changes.token);
    object->set("changed", json::makeArray(changes.changed));
    object->set("removed", json::makeArray(changes.removed));
    if (changes.restarted)
        object->set("restarted", true);
    return object;
}

DesktopJsonSerialization::DesktopJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<Workspace>("Workspace", nullptr, decodeWorkspace);
    add<WorkspaceResponse>("WorkspaceResponse", encodeWorkspaceResponse, nullptr);
    add<Variable>("Variable", nullptr, decodeVariable);
    add<VariableResponse>("VariableResponse", encodeVariableResponse, nullptr);
    add<SetVariable>("SetVariable", nullptr, decodeSetVariable);
    add<SetVariableResponse>(
        "SetVariableResponse", [](const SetVariableResponse&) { return json::makeObject(); }, nullptr);
    add<ClearVariable>("ClearVariable", nullptr, decodeClearVariable);
    add<ClearVariableResponse>(
        "ClearVariableResponse",
        [](const ClearVariableResponse& response) {
            return encodeOne("cleared", &ClearVariableResponse::cleared, response);
        },
        nullptr);
    add<VariableChange>("VariableChange", nullptr, decodeVariableChange);
    add<VariableChangeResponse>(
        "VariableChangeResponse",
        [](const VariableChangeResponse& response) { return encodeChanges(response.changes); }, nullptr);
    add<TabCompletion>("TabCompletion", nullptr, decodeTabCompletion);
    add<TabCompletionResponse>("TabCompletionResponse", encodeTabCompletionResponse, nullptr);
    add<CurrentFolder>("CurrentFolder", nullptr, decodeCurrentFolder);
    add<CurrentFolderResponse>(
        "CurrentFolderResponse",
        [](const CurrentFolderResponse& response) {
            return encodeOne("folder", &CurrentFolderResponse::folder, response);
        },
        nullptr);
}

DesktopMessageMapProvider::DesktopMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher,
                                                     Address desktop)
    : MessageMapProvider(std::move(dispatcher))
{
    for (const char* type :
         {"Workspace", "Variable", "SetVariable", "ClearVariable", "VariableChange", "TabCompletion", "CurrentFolder"})
        map(type, desktop);
    passBefore(desktop);
}

} // namespace connector::desktop::v1
