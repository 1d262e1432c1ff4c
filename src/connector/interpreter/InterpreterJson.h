#pragma once

#include <memory>

#include <Poco/JSON/Object.h>

#include "connector/interpreter/InterpreterMessages.h"
#include "connector/json/Members.h"

/// The JSON form of requests and answers, without their "type" (docs/protocol.md). Readers throw json::JsonError.
namespace connector::interpreter::v1 {

std::unique_ptr<Eval> decodeEval(json::Members& members);
std::unique_ptr<FEval> decodeFEval(json::Members& members);
std::unique_ptr<Interrupt> decodeInterrupt(json::Members& members);
Poco::JSON::Object::Ptr encodeEvalResponse(const EvalResponse& response);
Poco::JSON::Object::Ptr encodeFEvalResponse(const FEvalResponse& response);
/// How many bytes the answer takes at the least.
std::uint64_t leastBytesOf(const EvalResponse& response);
std::uint64_t leastBytesOf(const FEvalResponse& response);
/// An answer whose whole can be fetched with this id: without its value or results, and with the beginning of its
/// output. `bytes`: of the whole.
Poco::JSON::Object::Ptr encodeLarge(const EvalResponse& response, const std::string& id, std::uint64_t bytes);
Poco::JSON::Object::Ptr encodeLarge(const FEvalResponse& response, const std::string& id, std::uint64_t bytes);

} // namespace connector::interpreter::v1
