#pragma once

#include <memory>

#include "connector/container/ContainerDispatcher.h"
#include "connector/json/JsonSerializer.h"

namespace connector::interpreter::v1 {

/// The JSON form of Eval, FEval, Interrupt and their answers (docs/protocol.md).
class CONNECTOR_API InterpreterJsonSerialization final : public json::JsonSerialization
{
public:
    explicit InterpreterJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

/// Maps Eval, FEval and Interrupt to the interpreter, and sequences of calls.
class CONNECTOR_API InterpreterMessageMapProvider final : public container::v1::MessageMapProvider
{
public:
    /// `interpreter` serves single messages, `sequence` is the way of sequences of calls.
    InterpreterMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address interpreter,
                                  Address sequence);
};

} // namespace connector::interpreter::v1
