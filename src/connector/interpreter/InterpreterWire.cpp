#include "connector/interpreter/InterpreterWire.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/interpreter/InterpreterJson.h"
#include "connector/interpreter/InterpreterMessages.h"
#include "connector/interpreter/KeptAnswers.h"
#include "connector/json/ArrayJson.h"
#include "connector/json/Members.h"

namespace connector::interpreter::v1 {
namespace {

using Poco::JSON::Object;

constexpr std::int64_t kMaxResults = 100;
constexpr std::int64_t kMaxDeadline = std::chrono::milliseconds(std::chrono::hours(24)).count();
constexpr std::int64_t kMaxPosition = 1'000'000;

std::chrono::milliseconds decodeDeadline(json::Members& members)
{
    return std::chrono::milliseconds(members.optionalInteger("deadline", 0, 0, kMaxDeadline));
}

FEval::Use decodeUse(const Object& object)
{
    json::Members members(object);
    const auto position = [&](const char* name) {
        return static_cast<std::size_t>(members.requireInteger(name, 0, kMaxPosition));
    };
    const FEval::Use use{position("argument"), position("call"), members.has("result") ? position("result") : 0};
    members.refuseOthers();
    return use;
}

} // namespace

std::unique_ptr<Eval> decodeEval(json::Members& members)
{
    auto message = std::make_unique<Eval>();
    message->code = members.requireString("code");
    message->wantValue = members.optionalBool("wantValue", true);
    message->echo = members.optionalBool("echo", false);
    message->deadline = decodeDeadline(members);
    message->outputChannel = members.optionalString("outputChannel");
    return message;
}

namespace {

void setOutput(Object& object, const Output& output)
{
    object.set("output", output.text);
    if (output.omittedBytes > 0)
        object.set("omittedBytes", static_cast<std::int64_t>(output.omittedBytes));
    if (output.messages > 0)
        object.set("outputMessages", static_cast<std::int64_t>(output.messages));
}

Object::Ptr encode(const EvalResponse& response, bool withValue)
{
    Object::Ptr object = new Object;
    object->set("hasValue", response.hasValue);
    object->set("value", response.value && withValue ? json::toJson(*response.value) : Poco::Dynamic::Var());
    object->set("text", response.valueText);
    if (!response.conversionError.empty())
        object->set("conversionError", response.conversionError);
    setOutput(*object, response.output);
    return object;
}

std::uint64_t leastBytesOf(const std::vector<matrix::ArrayPtr>& results)
{
    std::uint64_t bytes = 0;
    for (const auto& result : results)
        bytes += leastBytes(result);
    return bytes;
}

} // namespace

std::uint64_t leastBytesOf(const EvalResponse& response)
{
    return leastBytes(response.value) + response.output.text.size();
}

std::uint64_t leastBytesOf(const FEvalResponse& response)
{
    return leastBytesOf(response.results) + response.output.text.size();
}

Object::Ptr encodeEvalResponse(const EvalResponse& response) { return encode(response, true); }

Object::Ptr encodeLarge(const EvalResponse& response, const std::string& id, std::uint64_t bytes)
{
    const bool small = leastBytes(response.value) <= kPartBytes;
    auto object = encode(response, small);
    if (leaveOutLarge(*object, id) || !small)
        object->set("conversionError",
                    "The answer takes " + std::to_string(bytes) + " bytes or more: it can be fetched.");
    return object;
}

std::unique_ptr<FEval> decodeFEval(json::Members& members)
{
    auto message = std::make_unique<FEval>();
    message->function = members.requireString("function");
    message->results = static_cast<std::size_t>(members.optionalInteger("results", 1, 0, kMaxResults));
    if (const auto arguments = members.optionalArray("arguments")) {
        for (std::size_t i = 0; i < arguments->size(); ++i)
            message->arguments.push_back(json::within(std::string("arguments"), [&] {
                return json::within(i, [&] { return json::fromJson(arguments->get(static_cast<unsigned>(i))); });
            }));
    }
    if (const auto named = members.optionalObject("keywordArguments"))
        for (const auto* member : json::membersInOrder(*named))
            message->keywordArguments.emplace_back(
                member->first, json::within(std::string("keywordArguments"), [&] {
                    return json::within(member->first, [&] { return json::fromJson(member->second); });
                }));
    message->deadline = decodeDeadline(members);
    message->outputChannel = members.optionalString("outputChannel");
    if (const auto uses = members.optionalArray("uses"))
        for (std::size_t i = 0; i < uses->size(); ++i)
            message->uses.push_back(json::within(std::string("uses"), [&] {
                return json::within(i, [&] { return decodeUse(*json::asObject(uses->get(static_cast<unsigned>(i)))); });
            }));
    return message;
}

namespace {

Object::Ptr encode(const FEvalResponse& response, bool withResults)
{
    Object::Ptr object = new Object;
    Poco::JSON::Array::Ptr results = new Poco::JSON::Array;
    if (withResults)
        for (const auto& result : response.results)
            results->add(result ? json::toJson(*result) : Poco::Dynamic::Var());
    object->set("results", withResults ? Poco::Dynamic::Var(results) : Poco::Dynamic::Var());
    setOutput(*object, response.output);
    return object;
}

} // namespace

Object::Ptr encodeFEvalResponse(const FEvalResponse& response) { return encode(response, true); }

Object::Ptr encodeLarge(const FEvalResponse& response, const std::string& id, std::uint64_t)
{
    auto object = encode(response, leastBytesOf(response.results) <= kPartBytes);
    leaveOutLarge(*object, id);
    return object;
}

std::unique_ptr<Interrupt> decodeInterrupt(json::Members& members)
{
    auto message = std::make_unique<Interrupt>();
    message->everybody = members.optionalBool("everybody", false);
    return message;
}

namespace {

std::unique_ptr<FetchAnswer> decodeFetchAnswer(json::Members& members)
{
    auto message = std::make_unique<FetchAnswer>();
    message->answer = members.requireString("answer");
    return message;
}

Object::Ptr encodeFetchAnswerResponse(const FetchAnswerResponse& response)
{
    if (const auto* answer = dynamic_cast<const EvalResponse*>(response.answer.get()))
        return encodeEvalResponse(*answer);
    return encodeFEvalResponse(dynamic_cast<const FEvalResponse&>(*response.answer));
}

Object::Ptr encodeInterruptResponse(const InterruptResponse& response)
{
    Object::Ptr object = new Object;
    object->set("interrupted", response.interrupted);
    return object;
}

} // namespace

InterpreterJsonSerialization::InterpreterJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<Eval>("Eval", nullptr, decodeEval);
    add<EvalResponse>("EvalResponse", encodeEvalResponse, nullptr);
    add<FEval>("FEval", nullptr, decodeFEval);
    add<FEvalResponse>("FEvalResponse", encodeFEvalResponse, nullptr);
    add<FetchAnswer>("FetchAnswer", nullptr, decodeFetchAnswer);
    add<FetchAnswerResponse>("FetchAnswerResponse", encodeFetchAnswerResponse, nullptr);
    add<Interrupt>("Interrupt", nullptr, decodeInterrupt);
    add<InterruptResponse>("InterruptResponse", encodeInterruptResponse, nullptr);
}

InterpreterMessageMapProvider::InterpreterMessageMapProvider(
    std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address interpreter, Address sequence)
    : MessageMapProvider(std::move(dispatcher))
{
    for (const char* type : {"Eval", "FEval", "FetchAnswer", "Interrupt"})
        map(type, interpreter);
    map("SequenceContainer", sequence);
}

} // namespace connector::interpreter::v1
