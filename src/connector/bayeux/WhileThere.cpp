#include "connector/bayeux/WhileThere.h"

namespace connector::bayeux {

MessageFuture whileThere(MessageFuture answer, CancellationToken& token)
{
    if (answer.isReady())
        return answer;
    const auto promise = std::make_shared<Promise<std::unique_ptr<Message>>>();
    auto result = promise->future();
    const auto waiting = std::make_shared<Future<bool>>(answer.then([promise](MessageFuture settled) {
        try {
            return promise->setValue(settled.get());
        } catch (...) {
            return promise->setException(std::current_exception());
        }
    }));
    auto registration =
        std::make_shared<CancellationToken::Registration>(token.onCancel([weak = std::weak_ptr(waiting)] {
            if (const auto held = weak.lock())
                held->cancel();
        }));
    // Both live for as long as there is no answer.
    promise->onCancel([waiting, registration] { waiting->cancel(); });
    return result;
}

} // namespace connector::bayeux
