#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connector/bayeux/BayeuxServer.h"
#include "connector/interpreter/EventLog.h"
#include "connector/interpreter/Pieces.h"
#include "connector/interpreter/PrintBuffer.h"
#include "connector/interpreter/Pump.h"

namespace connector::interpreter::v1 {

/// What an evaluation that outlives its request has to tell: numbered events, kept for readers that come, go and come
/// back (docs/evaluation.md). Each reader gets them in order on `channel()`, as fast as it takes them. Code that
/// prints faster than readers read waits once the log is full, for each reader until it stands still for too long or is
/// away; what no reader waits for makes room. One that lost its connection is none any more, until it attaches again.
/// Threads: any, unless said otherwise.
class CONNECTOR_API Evaluation final : public rqe::OutputSink,
                                       public Pump::Job,
                                       public std::enable_shared_from_this<Evaluation>
{
public:
    using Clock = Pump::Clock;

    static constexpr std::size_t kMaxReaders = 100;

    struct Limits
    {
        std::uint64_t logBytes = 64u << 20;
        std::chrono::milliseconds readerPatience{10'000}; ///< with a reader that takes nothing
        std::chrono::milliseconds inputPatience{60'000};  ///< of code that asks for input while nobody reads
    };

    enum class State
    {
        queued,
        running,
        ended
    };

    struct Summary
    {
        State state;
        bool wantsInput;
        std::uint64_t first; ///< number of the oldest event kept
        std::uint64_t last;  ///< of the newest; 0 for none
        std::uint64_t bytes; ///< kept
        Clock::time_point endedAt;
    };

    Evaluation(std::string id, std::weak_ptr<Pump> pump, const Limits& limits);

    const std::string& id() const noexcept { return id_; }
    const std::string& channel() const noexcept { return channel_; }
    Summary summary() const;

    /// The session gets `greeting`, all events after this number, and those to come; a reader begins anew. Without a
    /// greeting it cannot have read before. False when there are too many readers.
    bool attach(const bayeux::SessionPtr& session, std::uint64_t after, bayeux::EventPtr greeting = nullptr);
    bool detach(const bayeux::BayeuxSession& session);
    /// The line that was asked for, with its end; "" for the end of input. False when none was.
    bool answer(std::string line);
    /// From now on nothing is told to anybody, and nothing waits.
    void close();
    /// It has ended, and nobody attaches any more: readers get what is left, unless they stand still for too long.
    void forget();

    /// Interpreter thread, as are the operations of OutputSink.
    void begin();
    /// `outcome`: the members of the last event but one, as a JSON object. May wait for readers. Once.
    void end(const std::string& outcome);

    void write(rqe::Stream stream, std::string_view text) override;
    bool tryWrite(rqe::Stream stream, std::string_view text) override;
    std::optional<std::string> readLine(std::chrono::milliseconds patience) override;
    void stopReading() override;
    Clock::time_point pump() override;

private:
    using Lock = std::unique_lock<std::mutex>;

    struct Reader
    {
        bayeux::SessionPtr session;
        std::shared_ptr<bayeux::BayeuxSeries> series;
        bayeux::EventPtr greeting; ///< comes before all events; null once it is sent
        std::uint64_t next;
        Clock::time_point hadRoomAt;
    };
    using ReaderPtr = std::shared_ptr<Reader>;

    void add(rqe::Stream stream, std::string_view text);
    void gather();
    void append(Lock& lock, const std::string& members);
    void store(const std::string& members);
    bool flush(Lock& lock, bool wait);
    bool makeRoom(std::size_t bytes);
    bool isAwaited(std::uint64_t number);
    bool standsStill(const Reader& reader, Clock::time_point now) const;
    void dropLost();
    ReaderPtr takeOneAway();
    std::vector<ReaderPtr> takeForgotten();
    void dismiss(const std::vector<ReaderPtr>& readers) const;
    std::vector<bayeux::EventPtr> batchFor(Reader& reader);
    bool serve(Lock& lock, const ReaderPtr& reader);
    void wakePump();

    const std::string id_;
    const std::string channel_;
    const std::weak_ptr<Pump> pump_;
    const Limits limits_;
    const std::size_t mostAhead_;

    mutable std::mutex mutex_;
    std::condition_variable changed_; ///< room in the log, or a line of input
    EventLog log_;
    PrintBuffer printed_;
    Pieces pieces_; ///< printed before that, and not in the log yet
    Clock::time_point flushedAt_{};
    std::vector<ReaderPtr> readers_;
    Clock::time_point readAt_{}; ///< when there was a reader the last time
    State state_ = State::queued;
    Clock::time_point endedAt_{};
    std::atomic<bool> pumpKnows_{false}; ///< it will come by without being woken
    bool flushing_ = false;              ///< somebody writes events of older output than pieces_
    bool asking_ = false;
    std::optional<std::string> line_;
    bool closed_ = false;
    bool forgotten_ = false;
};

} // namespace connector::interpreter::v1
