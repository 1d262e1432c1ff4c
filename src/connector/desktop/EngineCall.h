#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/core/ServiceProvider.h"
#include "platform/rqe/RQE.h"

namespace connector::desktop::v1 {

/// Makes an answer on the interpreter thread, or, when it only looks, on the looking thread.
using EngineWork = std::function<std::unique_ptr<Message>(rqe::Interpreter&)>;

/// How many tasks may wait at the engine for another one to be taken in.
inline constexpr std::size_t kMaxQueued = 1'000;

/// Runs `work` as a task of the engine, after those that wait; a task that has not begun is taken out when the client
/// goes away. Throws ServiceFault "unavailable" without an engine or when it is closed, "busy" when too many wait. The
/// future fails with "scriptError", "interrupted", "notFound" (std::out_of_range), "cancelled" or "unavailable"; other
/// exceptions of `work` come through as they are. Threads: any.
MessageFuture callEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context,
                         EngineWork work);

/// The answer to one request on its way. Threads: any; what comes first settles it.
class EngineAnswer
{
public:
    using Clock = std::chrono::steady_clock;

    enum class Stage
    {
        waiting,
        running, ///< on the interpreter thread
        aside,   ///< on the looking thread, in turns with what runs
        settled
    };

    /// To be called once.
    MessageFuture future() const { return promise_.future(); }
    void succeed(std::unique_ptr<Message> answer) noexcept;
    void fail(const std::exception_ptr& failure) noexcept;
    void begin(bool aside) noexcept { stage_ = aside ? Stage::aside : Stage::running; }
    Stage stage() const noexcept { return stage_; }

    // For who asked.
    const Clock::time_point asked = Clock::now();
    rqe::TaskId id = 0;
    CancellationToken::Registration registration; ///< takes the task out when its client goes away

private:
    Promise<std::unique_ptr<Message>> promise_;
    std::atomic<Stage> stage_{Stage::waiting};
};

/// As callEngine, for work that only looks: it need not wait for the end of what runs. Fails also with "busy" when what
/// it looks at changes all the time. The future is the one result; the other is for who watches over it.
std::pair<MessageFuture, std::shared_ptr<EngineAnswer>>
lookAtEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context, EngineWork work);

/// The failure for a client that an exception of the engine or of a task stands for.
std::exception_ptr faultOf(const std::exception_ptr& reason);

} // namespace connector::desktop::v1
