#pragma once

#include <atomic>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "connector/Export.h"

namespace connector {

/// The failure of a future that was cancelled: "Future has been cancelled."
class CONNECTOR_API FutureCancelled : public std::runtime_error
{
public:
    FutureCancelled();
    ~FutureCancelled() override;
};

/// The failure of a future whose promise went away without an answer.
class CONNECTOR_API BrokenPromise : public std::runtime_error
{
public:
    BrokenPromise();
    ~BrokenPromise() override;
};

namespace detail {

[[noreturn]] CONNECTOR_API void throwInvalidFutureState();
[[noreturn]] CONNECTOR_API void throwFutureTaken();

/// What a promise and its future share. Callbacks run without the lock held.
template <class T>
class FutureState
{
public:
    using Callback = std::function<void()>;

    struct Pending
    {};
    struct Cancelled
    {};
    struct Taken
    {};

    FutureState() = default;
    /// With its outcome.
    template <class Outcome>
    explicit FutureState(std::in_place_t, Outcome&& outcome)
        : isSettled_(true), content_(std::forward<Outcome>(outcome))
    {}

    /// False when the outcome was decided before.
    template <class Outcome>
    bool settle(Outcome&& outcome)
    {
        return decide(std::forward<Outcome>(outcome), false);
    }

    bool cancel() { return decide(Cancelled{}, true); }

    /// Keeps what is to be done on cancellation; does it at once when that has happened already.
    void setOnCancel(Callback callback)
    {
        {
            std::lock_guard lock(mutex_);
            if (std::holds_alternative<Pending>(content_)) {
                onCancel_.swap(callback); // the former one dies after the lock is released
                return;
            }
            if (!std::holds_alternative<Cancelled>(content_))
                return;
        }
        callback();
    }

    /// Keeps what is to be done on an outcome; does it at once when there is one.
    void setContinuation(Callback callback)
    {
        {
            std::lock_guard lock(mutex_);
            if (std::holds_alternative<Pending>(content_)) {
                continuation_.swap(callback);
                return;
            }
        }
        callback();
    }

    void wait()
    {
        if (isSettled())
            return;
        std::unique_lock lock(mutex_);
        settled_.wait(lock, [this] { return isSettled(); });
    }

    bool isSettled() const noexcept { return isSettled_.load(std::memory_order_acquire); }

    bool isCancelled() const
    {
        std::lock_guard lock(mutex_);
        return std::holds_alternative<Cancelled>(content_);
    }

    /// The value, once; or throws the failure.
    T take()
    {
        std::lock_guard lock(mutex_);
        if (auto* value = std::get_if<T>(&content_)) {
            T result = std::move(*value);
            content_ = Taken{};
            return result;
        }
        if (auto* failure = std::get_if<std::exception_ptr>(&content_))
            std::rethrow_exception(*failure);
        if (std::holds_alternative<Cancelled>(content_))
            throw FutureCancelled();
        if (std::holds_alternative<Taken>(content_))
            throwFutureTaken();
        throwInvalidFutureState();
    }

private:
    /// The outcome and what is told of it are taken in one step: whoever sets a callback comes before, and it is
    /// called, or after, and finds the outcome.
    template <class Outcome>
    bool decide(Outcome&& outcome, bool cancelled)
    {
        Callback continuation;
        Callback onCancel;
        {
            std::lock_guard lock(mutex_);
            if (!std::holds_alternative<Pending>(content_))
                return false;
            content_ = std::forward<Outcome>(outcome);
            isSettled_.store(true, std::memory_order_release);
            continuation.swap(continuation_);
            onCancel.swap(onCancel_);
            settled_.notify_all();
        }
        if (continuation)
            continuation();
        if (cancelled && onCancel)
            onCancel();
        return true;
    }

    mutable std::mutex mutex_;
    std::condition_variable settled_;
    std::atomic<bool> isSettled_{false}; ///< and `content_` no longer Pending
    std::variant<Pending, T, std::exception_ptr, Cancelled, Taken> content_;
    Callback continuation_;
    Callback onCancel_;
};

} // namespace detail

template <class T>
class Promise;

template <class T>
class Future;
template <class T>
Future<std::decay_t<T>> makeReadyFuture(T&& value);
template <class T>
Future<T> makeFailedFuture(std::exception_ptr failure);

namespace detail {

template <class T>
struct Unwrapped
{
    using type = T;
    static constexpr bool isFuture = false;
};
template <class T>
struct Unwrapped<Future<T>>
{
    using type = T;
    static constexpr bool isFuture = true;
};

} // namespace detail

/// One value or one failure that comes later. Move-only; T is a movable object type.
///
/// Threads: `get` and `then` belong to the thread that holds the future; the outcome may come from any thread, and a
/// continuation runs on the thread that brings it, or at once on the caller's when it is there already.
template <class T>
class Future
{
public:
    Future() = default;
    explicit Future(std::shared_ptr<detail::FutureState<T>> state) : state_(std::move(state)) {}
    Future(Future&&) noexcept = default;
    Future& operator=(Future&&) noexcept = default;
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;
    ~Future() = default;

    /// False for a default-constructed future and after `then`.
    bool valid() const noexcept { return state_ != nullptr; }
    bool isReady() const { return state_ && state_->isSettled(); }

    /// Blocks until there is an outcome; never on an I/O thread. Throws the failure, FutureCancelled, or
    /// std::runtime_error "Future already returned it's value or has an associated continuation."
    T get()
    {
        if (!state_)
            detail::throwFutureTaken();
        state_->wait();
        return state_->take();
    }

    /// Calls `next` with this future, settled, and yields a future of what it returns; a returned future is waited for.
    /// What `next` throws is that future's failure. Cancelling the result cancels this one. `next` must be copyable.
    /// Throws as `get` when the value was taken.
    template <class Next>
    auto then(Next next)
    {
        using Result = std::invoke_result_t<Next, Future<T>>;
        using Value = typename detail::Unwrapped<Result>::type;
        if (!state_)
            detail::throwFutureTaken();

        auto state = std::move(state_);
        if (state->isSettled())
            return outcomeOf<Result>(next, std::move(state));
        auto promise = std::make_shared<Promise<Value>>();
        auto result = promise->future();
        promise->onCancel([weak = std::weak_ptr(state)] {
            if (auto upstream = weak.lock())
                upstream->cancel();
        });
        auto* settled = state.get();
        settled->setContinuation([state = std::move(state), promise, next = std::move(next)]() mutable {
            try {
                if constexpr (detail::Unwrapped<Result>::isFuture)
                    next(Future<T>(std::move(state))).forwardTo(std::move(*promise));
                else
                    promise->setValue(next(Future<T>(std::move(state))));
            } catch (...) {
                promise->setException(std::current_exception());
            }
        });
        return result;
    }

    /// Hands the outcome of this future to a promise made elsewhere.
    void forwardTo(Promise<T> promise)
    {
        if (!state_)
            detail::throwFutureTaken();
        auto shared = std::make_shared<Promise<T>>(std::move(promise));
        auto state = std::move(state_);
        shared->onCancel([weak = std::weak_ptr(state)] {
            if (auto upstream = weak.lock())
                upstream->cancel();
        });
        auto* settled = state.get();
        settled->setContinuation([state = std::move(state), shared] {
            try {
                shared->setValue(state->take());
            } catch (...) {
                shared->setException(std::current_exception());
            }
        });
    }

    /// Gives the answer up: the outcome becomes FutureCancelled unless there is one, and the promise's side is told.
    void cancel()
    {
        if (auto state = state_)
            state->cancel();
    }

private:
    /// What a continuation makes of an outcome that is there already.
    template <class Result, class Next>
    static auto outcomeOf(Next& next, std::shared_ptr<detail::FutureState<T>> settled)
    {
        using Value = typename detail::Unwrapped<Result>::type;
        try {
            if constexpr (detail::Unwrapped<Result>::isFuture)
                return next(Future<T>(std::move(settled)));
            else
                return makeReadyFuture<Value>(next(Future<T>(std::move(settled))));
        } catch (...) {
            return makeFailedFuture<Value>(std::current_exception());
        }
    }

    std::shared_ptr<detail::FutureState<T>> state_;
};

/// The giving side. Move-only. A promise that dies without an outcome fails its future with BrokenPromise.
template <class T>
class Promise
{
public:
    Promise() : state_(std::make_shared<detail::FutureState<T>>()) {}
    Promise(Promise&& other) noexcept : state_(std::exchange(other.state_, nullptr)) {}
    Promise& operator=(Promise&& other) noexcept
    {
        if (this != &other) {
            abandon();
            state_ = std::exchange(other.state_, nullptr);
        }
        return *this;
    }
    Promise(const Promise&) = delete;
    Promise& operator=(const Promise&) = delete;
    ~Promise() { abandon(); }

    /// To be called once.
    Future<T> future() const { return Future<T>(state_); }

    /// False when there was an outcome before (a cancellation, say); the value is dropped then. Any thread.
    bool setValue(T value) { return state_->settle(std::move(value)); }
    bool setException(std::exception_ptr failure) { return state_->settle(std::move(failure)); }
    template <class E>
    requires std::is_base_of_v<std::exception, E>
    bool setException(E failure) { return setException(std::make_exception_ptr(std::move(failure))); }

    bool isCancelled() const { return state_->isCancelled(); }
    /// At most one callback, replaced by the next; called on the thread that cancels.
    void onCancel(std::function<void()> callback) { state_->setOnCancel(std::move(callback)); }

private:
    void abandon() noexcept
    {
        if (state_ && !state_->isSettled())
            state_->settle(std::make_exception_ptr(BrokenPromise()));
        state_.reset();
    }

    std::shared_ptr<detail::FutureState<T>> state_;
};

template <class T>
Future<std::decay_t<T>> makeReadyFuture(T&& value)
{
    using Value = std::decay_t<T>;
    return Future<Value>(std::make_shared<detail::FutureState<Value>>(std::in_place, std::forward<T>(value)));
}

template <class T>
Future<T> makeFailedFuture(std::exception_ptr failure)
{
    return Future<T>(std::make_shared<detail::FutureState<T>>(std::in_place, std::move(failure)));
}

template <class T, class E>
requires std::is_base_of_v<std::exception, E> Future<T> makeFailedFuture(E failure)
{
    return makeFailedFuture<T>(std::make_exception_ptr(std::move(failure)));
}

} // namespace connector
