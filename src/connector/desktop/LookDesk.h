#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/common/TickManager.h"
#include "connector/desktop/EngineCall.h"

namespace connector::desktop::v1 {

/// Where requests that only look are taken in. They are answered also while code runs, unless that code keeps the
/// language's lock: then the answer is a fault before the client loses patience. Threads: any.
class LookDesk final : public std::enable_shared_from_this<LookDesk>
{
public:
    static constexpr std::chrono::milliseconds kPatience{1'000};   ///< until a look begins
    static constexpr std::chrono::milliseconds kMostAside{10'000}; ///< until one ends that must share the lock
    static constexpr std::chrono::milliseconds kTick{50};

    /// `engine` may be empty: every request is then refused.
    explicit LookDesk(boost::shared_ptr<rqe::RQE> engine) : engine_(std::move(engine)) {}

    /// As lookAtEngine; fails with "busy" also when the look cannot begin, or go on, for too long.
    MessageFuture ask(const std::shared_ptr<Context>& context, EngineWork work);
    void stop();

private:
    void watch(std::shared_ptr<EngineAnswer> answer);
    void startTick();
    void expire();

    const boost::shared_ptr<rqe::RQE> engine_;
    std::mutex mutex_;
    bool ticking_ = false;
    std::vector<std::shared_ptr<EngineAnswer>> watched_;
    common::TickManager::Subscription tick_;
};

} // namespace connector::desktop::v1
