#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "connector/Export.h"

namespace connector::common {

/// Calls back at intervals, on one thread of its own, started with the first subscription. Callbacks must not block; an
/// exception of one is logged once and the next is called. Threads: any.
class CONNECTOR_API TickManager
{
public:
    using Callback = std::function<void()>;

    /// Ends the calls when it dies: waits for a callback that is running, unless that callback itself ends it.
    class CONNECTOR_API Subscription
    {
    public:
        Subscription() = default;
        Subscription(Subscription&& other) noexcept;
        Subscription& operator=(Subscription&& other) noexcept;
        ~Subscription();
        void reset() noexcept;

    private:
        friend class TickManager;
        struct State;
        explicit Subscription(std::shared_ptr<State> state);
        std::shared_ptr<State> state_;
    };

    /// The one instance, made on first use and again after destructInstance.
    static std::shared_ptr<TickManager> instance();
    /// Ends the thread and drops all subscriptions; what is left of them is inert. Does nothing without an instance.
    static void destructInstance();

    TickManager();
    ~TickManager();
    TickManager(const TickManager&) = delete;
    TickManager& operator=(const TickManager&) = delete;

    /// `callback` is called every `interval` (at least one millisecond), first after one interval.
    [[nodiscard]] Subscription every(std::chrono::milliseconds interval, Callback callback);

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

} // namespace connector::common
