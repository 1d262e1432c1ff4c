#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "connector/Export.h"

namespace connector {

/// Tells everybody who works on a request that its client went away. Fires once. Threads: any.
class CONNECTOR_API CancellationToken : public std::enable_shared_from_this<CancellationToken>
{
public:
    /// Takes the callback back when it dies. Does not wait for a callback that is running.
    class CONNECTOR_API Registration
    {
    public:
        Registration() = default;
        Registration(std::weak_ptr<CancellationToken> token, std::uint64_t id) : token_(std::move(token)), id_(id) {}
        Registration(Registration&& other) noexcept : token_(std::move(other.token_)), id_(std::exchange(other.id_, 0))
        {}
        Registration& operator=(Registration&& other) noexcept;
        ~Registration() { reset(); }
        void reset() noexcept;

    private:
        std::weak_ptr<CancellationToken> token_;
        std::uint64_t id_ = 0;
    };

    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

    /// Calls what was registered, on this thread, without a lock held.
    void cancel();

    /// Calls `callback` on cancellation, at once when that has happened. It must not throw or block.
    [[nodiscard]] Registration onCancel(std::function<void()> callback);

private:
    std::atomic<bool> cancelled_{false};
    std::mutex mutex_;
    std::map<std::uint64_t, std::function<void()>> callbacks_;
    std::uint64_t nextId_ = 1;
};

} // namespace connector
