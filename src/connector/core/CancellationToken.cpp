#include "connector/core/CancellationToken.h"

namespace connector {

CancellationToken::Registration& CancellationToken::Registration::operator=(Registration&& other) noexcept
{
    if (this != &other) {
        reset();
        token_ = std::move(other.token_);
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

void CancellationToken::Registration::reset() noexcept
{
    const auto id = std::exchange(id_, 0);
    if (id == 0)
        return;
    if (auto token = token_.lock()) {
        std::function<void()> dropped; // dies after the lock is released
        std::lock_guard lock(token->mutex_);
        if (auto found = token->callbacks_.find(id); found != token->callbacks_.end()) {
            dropped.swap(found->second);
            token->callbacks_.erase(found);
        }
    }
    token_.reset();
}

void CancellationToken::cancel()
{
    std::map<std::uint64_t, std::function<void()>> callbacks;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_.exchange(true, std::memory_order_acq_rel))
            return;
        callbacks.swap(callbacks_);
    }
    for (auto& [id, callback] : callbacks)
        callback();
}

CancellationToken::Registration CancellationToken::onCancel(std::function<void()> callback)
{
    {
        std::lock_guard lock(mutex_);
        if (!isCancelled()) {
            const auto id = nextId_++;
            callbacks_.emplace(id, std::move(callback));
            return {weak_from_this(), id};
        }
    }
    callback();
    return {};
}

} // namespace connector
