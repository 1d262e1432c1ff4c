#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/core/Message.h"
#include "platform/matrix/Array.h"

namespace connector::interpreter::v1 {

/// Answers that are too large for a message of the bus, kept until somebody fetches them over HTTP. Bounded: the oldest
/// give way. Threads: any.
class CONNECTOR_API KeptAnswers
{
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMaxAnswers = 200;
    static constexpr std::uint64_t kMaxBytes = 256u << 20; ///< as JSON, together
    static constexpr std::chrono::minutes kKeepTime{30};

    /// Keeps an answer of so many bytes (EvalResponse or FEvalResponse) and gives the id to fetch it with. It goes with
    /// its HTTP session, if any. Throws ServiceFault "tooLarge" for more than kMaxBytes.
    std::string keep(std::shared_ptr<const Message> answer, std::uint64_t bytes, std::string httpSession);
    /// Throws ServiceFault "notFound".
    std::shared_ptr<const Message> find(const std::string& id);
    void sessionEnded(const std::string& httpSession);

private:
    struct Kept
    {
        std::string id;
        std::shared_ptr<const Message> answer;
        std::uint64_t bytes;
        std::string httpSession;
        Clock::time_point since;
    };

    std::deque<Kept> takeOld(std::uint64_t more);

    std::mutex mutex_;
    std::deque<Kept> kept_; ///< the oldest first
    std::uint64_t bytes_ = 0;
};

/// How many bytes a value takes as JSON at the least, without writing it.
std::uint64_t leastBytes(const matrix::ArrayPtr& value);

/// Of a value or an output that stays in an answer whose whole is kept. Escaped it may be six times as long.
inline constexpr std::size_t kPartBytes = 256u << 10;

/// Takes out of an answer's members what makes them large, and says with which id the whole can be fetched. True when a
/// value or results went.
bool leaveOutLarge(Poco::JSON::Object& members, const std::string& id);

} // namespace connector::interpreter::v1
