#pragma once

#include <exception>
#include <mutex>
#include <string>

#include "connector/interpreter/Pieces.h"
#include "connector/interpreter/Pump.h"

namespace connector::interpreter::v1 {

/// Publishes what a request prints on a channel of the bus: {"seq":1,"stream":"output","text":…}, numbered from 1. Code
/// that prints faster than subscribers read waits for them, a second at most for those that stand still.
class StreamedOutput final : public rqe::OutputSink,
                             public Pump::Job,
                             public std::enable_shared_from_this<StreamedOutput>
{
public:
    using Clock = Pump::Clock;

    /// Throws std::invalid_argument for what is no channel that can be published to, or is reserved.
    StreamedOutput(std::string channel, std::weak_ptr<Pump> pump);

    void write(rqe::Stream stream, std::string_view text) override;
    bool tryWrite(rqe::Stream stream, std::string_view text) override;
    Clock::time_point pump() override;
    /// Publishes what is left; how many messages there were. Throws what kept it from publishing, the bus being gone
    /// say: what was printed from then on is lost.
    std::size_t finish();

private:
    bool add(rqe::Stream stream, std::string_view text);
    void publish() noexcept;

    const std::string channel_;
    const std::weak_ptr<Pump> pump_;
    std::mutex publishing_; ///< held while pieces are on their way, so that they stay in order; before mutex_
    std::size_t messages_ = 0;
    std::exception_ptr failure_;
    std::mutex mutex_;
    Pieces pieces_;
    Clock::time_point publishedAt_{};
    bool pumpKnows_ = false;
};

} // namespace connector::interpreter::v1
