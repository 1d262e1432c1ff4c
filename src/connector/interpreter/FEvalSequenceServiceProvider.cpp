#include "connector/interpreter/FEvalSequenceServiceProvider.h"

#include <optional>
#include <stdexcept>

#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"

namespace connector::interpreter::v1 {
namespace {

using container::SequenceContainer;
using container::SequenceContainerResponse;
using container::v1::Fault;

/// One sequence on its way. In one pair of hands at a time: its own until a call is sent, then the answer's.
class Sequence final : public std::enable_shared_from_this<Sequence>
{
public:
    Sequence(std::unique_ptr<SequenceContainer> request, Address rest, std::shared_ptr<Context> context)
        : request_(std::move(request)), rest_(std::move(rest)), context_(std::move(context))
    {}

    MessageFuture future() const { return promise_.future(); }

    /// Serves as many calls as are answered at once; the answer of another goes on with the rest.
    void goOn()
    {
        while (answers_.size() < request_->entries.size()) {
            auto answer = call(answers_.size());
            if (!answer.isReady()) {
                answer.then([self = shared_from_this()](MessageFuture settled) {
                    self->take(settled);
                    self->goOn();
                    return true;
                });
                return;
            }
            take(answer);
        }
        auto response = std::make_unique<SequenceContainerResponse>();
        for (std::size_t i = 0; i < answers_.size(); ++i)
            response->entries.push_back({request_->entries[i].id, std::move(answers_[i])});
        promise_.setValue(std::move(response));
    }

private:
    MessageFuture call(std::size_t position)
    try {
        auto& entry = request_->entries[position];
        if (failedAt_ && request_->stopOnFailure)
            throw ServiceFault("skipped", "Call " + std::to_string(*failedAt_) + " failed.");
        if (entry.failure)
            std::rethrow_exception(entry.failure);
        auto* call = dynamic_cast<FEval*>(entry.message.get());
        if (!call)
            throw std::invalid_argument("A sequence takes FEval, not " + entry.type + ".");
        for (const auto& use : call->uses)
            fill(*call, use);
        return context_->connector()->handle(std::move(entry.message), Address(rest_),
                                             std::shared_ptr<Context>(context_));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }

    void fill(FEval& call, const FEval::Use& use) const
    {
        const std::string what = "Result " + std::to_string(use.result) + " of call " + std::to_string(use.call);
        if (use.argument >= call.arguments.size())
            throw std::invalid_argument("There is no argument " + std::to_string(use.argument) + " to be " + what +
                                        ".");
        const auto* earlier =
            use.call < answers_.size() ? dynamic_cast<const FEvalResponse*>(answers_[use.call].get()) : nullptr;
        if (!earlier || use.result >= earlier->results.size() || !earlier->results[use.result])
            throw std::invalid_argument(what + " is not there.");
        call.arguments[use.argument] = matrix::clone(*earlier->results[use.result]);
    }

    void take(MessageFuture& settled)
    {
        try {
            answers_.push_back(settled.get());
        } catch (...) {
            if (!failedAt_)
                failedAt_ = answers_.size();
            answers_.push_back(std::make_unique<Fault>(std::current_exception()));
        }
    }

    const std::unique_ptr<SequenceContainer> request_;
    const Address rest_;
    const std::shared_ptr<Context> context_;
    std::vector<std::unique_ptr<Message>> answers_;
    std::optional<std::size_t> failedAt_;
    Promise<std::unique_ptr<Message>> promise_;
};

} // namespace

MessageFuture FEvalSequenceServiceProvider::handleSequence(std::unique_ptr<SequenceContainer>&& message, Address&& rest,
                                                           std::shared_ptr<Context>&& context)
{
    if (rest.empty())
        throw std::invalid_argument("The address of a sequence names who serves its calls.");
    auto sequence = std::make_shared<Sequence>(std::move(message), std::move(rest), std::move(context));
    auto future = sequence->future();
    sequence->goOn();
    return future;
}

} // namespace connector::interpreter::v1
