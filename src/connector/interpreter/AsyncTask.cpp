#include "connector/interpreter/AsyncTask.h"

#include "connector/container/ContainerMessages.h"
#include "connector/interpreter/InterpreterJson.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::interpreter::v1 {
namespace {

using container::v1::Fault;
using json::Object;

Object::Ptr membersOf(const Fault& fault)
{
    auto object = json::makeObject();
    object->set("code", fault.code);
    object->set("message", fault.message);
    for (const auto& [name, text] : fault.details)
        object->set(name, text);
    return object;
}

/// The event of an evaluation that went well, as JSON without its number.
std::string resultOf(const Object& answer)
{
    auto object = json::makeObject();
    object->set("kind", "result");
    for (const auto* member : json::membersInOrder(answer))
        if (member->first != "output" && member->first != "omittedBytes")
            object->set(member->first, member->second);
    return json::write(object);
}

} // namespace

Object::Ptr faultMembers(const std::exception_ptr& failure) { return membersOf(Fault(failure)); }

std::string failureText(const std::exception_ptr& failure)
{
    Fault fault(failure);
    fault.details.erase("output"); // has been told
    auto object = json::makeObject();
    object->set("kind", "error");
    const auto members = membersOf(fault);
    for (const auto* member : json::membersInOrder(*members))
        object->set(member->first, member->second);
    return json::write(object);
}

void AsyncTask::run(rqe::Interpreter& interpreter)
{
    kept_->evaluation->begin();
    const Deadline deadline(request_->deadline, engine_, Deadline::TaskNumber(kept_, &kept_->task));
    try {
        response_ = evaluate(interpreter, *request_, *kept_->evaluation);
    } catch (const rqe::ScriptError& error) {
        failure_ = deadline.faultOf(error, {});
    }
}

std::string AsyncTask::resultText()
{
    auto bytes = leastBytes(response_.value);
    if (bytes <= kMaxValueBytes) {
        auto text = resultOf(*encodeEvalResponse(response_));
        bytes = text.size();
        if (bytes <= kMaxValueBytes)
            return text;
    }
    const auto whole = std::make_shared<EvalResponse>(std::move(response_));
    const auto id = answers_->keep(whole, bytes, kept_->httpSession);
    return resultOf(*encodeLarge(*whole, id, bytes));
}

void AsyncTask::end(const std::exception_ptr& failure) noexcept
{
    keep_.reset();
    std::string outcome;
    try {
        outcome = failure ? failureText(failure) : resultText();
    } catch (...) {
        outcome = failureText(std::current_exception());
    }
    kept_->evaluation->end(outcome);
}

} // namespace connector::interpreter::v1
