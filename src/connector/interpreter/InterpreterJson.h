#pragma once

#include <memory>

#include <Poco/JSON/Object.h>

#include "connector/interpreter/InterpreterMessages.h"
#include "connector/json/Members.h"

/// The JSON form of requests and answers, without their "type" (docs/protocol.md). Readers throw json::JsonError.
namespace connector::interpreter::v1 {

std::unique_ptr<Eval> decodeEval(json::Members& members);
std::unique_ptr<FEval> decodeFEval(json::Members& members);
Poco::JSON::Object::Ptr encodeEvalResponse(const EvalResponse& response);
Poco::JSON::Object::Ptr encodeFEvalResponse(const FEvalResponse& response);

} // namespace connector::interpreter::v1
