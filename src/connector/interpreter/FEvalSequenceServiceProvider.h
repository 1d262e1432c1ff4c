#pragma once

#include "connector/container/SequenceContainer.h"
#include "connector/interpreter/InterpreterMessages.h"

namespace connector::interpreter::v1 {

/// Calls functions one after the other, each with results of earlier ones among its arguments where it `uses` them.
/// What is left of the address serves the single calls, between which others may be served. Besides the faults of
/// FEval: "badRequest" for other messages and for uses of what is not there, "skipped" after a failure that ended the
/// sequence.
class CONNECTOR_API FEvalSequenceServiceProvider final : public container::SequenceContainerServiceProvider
{
public:
    MessageFuture handleSequence(std::unique_ptr<container::SequenceContainer>&& message, Address&& rest,
                                 std::shared_ptr<Context>&& context) override;
};

} // namespace connector::interpreter::v1
