#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/interpreter/EvaluationSettings.h"
#include "connector/interpreter/InterpreterMessages.h"
#include "connector/interpreter/KeptAnswers.h"
#include "platform/rqe/RQE.h"

namespace connector::interpreter::v1 {

/// Evaluation in the running interpreter. Faults: "scriptError" (details error, traceback, output), "interrupted" and
/// "deadline" (the same), "busy" (too many requests wait), "unavailable" (no interpreter, or it is shutting down),
/// "cancelled".
class CONNECTOR_API InterpreterServiceProvider : public ServiceProviderAPI<InterpreterServiceProvider>
{
public:
    /// Answers with EvalResponse once the interpreter thread has run the code, requests in order of arrival.
    virtual MessageFuture handleEval(std::unique_ptr<Eval>&& message, Address&& rest,
                                     std::shared_ptr<Context>&& context) = 0;
    /// Answers with FEvalResponse, as above.
    virtual MessageFuture handleFEval(std::unique_ptr<FEval>&& message, Address&& rest,
                                      std::shared_ptr<Context>&& context) = 0;
    /// Answers with FetchAnswerResponse; the answer stays where it is.
    virtual MessageFuture handleFetchAnswer(std::unique_ptr<FetchAnswer>&& message, Address&& rest,
                                            std::shared_ptr<Context>&& context) = 0;
    /// Acts at once, from any thread.
    virtual MessageFuture handleInterrupt(std::unique_ptr<Interrupt>&& message, Address&& rest,
                                          std::shared_ptr<Context>&& context) = 0;
};

class CONNECTOR_API InterpreterServiceProviderImpl final : public InterpreterServiceProvider
{
public:
    /// `engine` may be empty: every request then fails with the fault "unavailable".
    InterpreterServiceProviderImpl(std::shared_ptr<configuration::Configuration> configuration,
                                   boost::shared_ptr<rqe::RQE> engine);
    ~InterpreterServiceProviderImpl() override;

    MessageFuture handleEval(std::unique_ptr<Eval>&& message, Address&& rest,
                             std::shared_ptr<Context>&& context) override;
    MessageFuture handleFEval(std::unique_ptr<FEval>&& message, Address&& rest,
                              std::shared_ptr<Context>&& context) override;
    MessageFuture handleFetchAnswer(std::unique_ptr<FetchAnswer>&& message, Address&& rest,
                                    std::shared_ptr<Context>&& context) override;
    MessageFuture handleInterrupt(std::unique_ptr<Interrupt>&& message, Address&& rest,
                                  std::shared_ptr<Context>&& context) override;
    /// Where answers to fetch are kept; before the first message.
    void serveAnswers(std::shared_ptr<KeptAnswers> answers) { answers_ = std::move(answers); }

private:
    template <class Request>
    MessageFuture post(std::unique_ptr<Request> request, const std::shared_ptr<Context>& context);

    const EvaluationSettings settings_;
    const boost::shared_ptr<rqe::RQE> engine_;
    std::shared_ptr<KeptAnswers> answers_ = std::make_shared<KeptAnswers>();
    const std::shared_ptr<class Pump> pump_; ///< of output that goes to channels
};

} // namespace connector::interpreter::v1
