#include "connector/interpreter/Evaluation.h"

#include <algorithm>

namespace connector::interpreter::v1 {
namespace {

using std::chrono::milliseconds;

/// Output of so much time goes out together.
constexpr milliseconds kBatchTime{5};
/// How soon a reader that had no room is looked at again: the longer it stands still the later.
constexpr milliseconds kRetryTime{5};
constexpr milliseconds kLongestRetry{250};
constexpr int kRetriesOfWait = 8;
constexpr milliseconds kRoomLook{100};
/// Printed and not in the log yet; code that is further ahead waits. No more than a part of what the log may hold.
constexpr std::size_t kMostAhead = 8 * Pieces::kBytes;
constexpr std::size_t kAheadOfLog = 8;
/// Read from the log and handed to a reader at a time.
constexpr std::size_t kBatchBytes = 256u << 10;

std::string numbered(std::uint64_t number, const std::string& members)
{
    const auto digits = std::to_string(number);
    std::string text;
    // Of its exact size, since it may be kept for long.
    text.reserve(std::size(R"({"seq":,})") + digits.size() + members.size());
    return std::move(text.append(R"({"seq":)").append(digits).append(",").append(members).append("}"));
}

/// Tells a reader that it is none any more, as the answer to its own wish would.
bayeux::EventPtr dismissal(const std::string& id)
{
    return bayeux::BayeuxEvent::ofText("/service/interpreter/detach", R"({"detached":true,"id":")" + id + R"("})");
}

std::string stateMembers(const char* state) { return std::string(R"("kind":"state","state":")") + state + '"'; }

} // namespace

Evaluation::Evaluation(std::string id, std::weak_ptr<Pump> pump, const Limits& limits)
    : id_(std::move(id)), channel_("/interpreter/eval/" + id_), pump_(std::move(pump)), limits_(limits),
      mostAhead_(std::clamp<std::size_t>(limits.logBytes / kAheadOfLog, Pieces::kBytes, kMostAhead))
{}

Evaluation::Summary Evaluation::summary() const
{
    std::lock_guard lock(mutex_);
    return {state_, asking_, log_.first(), log_.next() - 1, log_.bytes(), endedAt_};
}

bool Evaluation::attach(const bayeux::SessionPtr& session, std::uint64_t after, bayeux::EventPtr greeting)
{
    auto series = session->openSeries(channel_, greeting != nullptr);
    ReaderPtr displaced;
    {
        const Lock lock(mutex_);
        dropLost(); // the reader that this session was among them
        if (series->isLost())
            return true; // it is over, or has attached once more meanwhile
        if (readers_.size() >= kMaxReaders && !(displaced = takeOneAway()))
            return false;
        // A number that is not there yet is none: the client has it from another life of this process.
        readers_.push_back(std::make_shared<Reader>(
            Reader{session, std::move(series), std::move(greeting), std::min(after + 1, log_.next()), Clock::now()}));
        wakePump();
    }
    if (displaced)
        dismiss({displaced});
    return true;
}

void Evaluation::dropLost()
{
    std::erase_if(readers_, [](const ReaderPtr& reader) { return reader->series->isLost(); });
}

/// The one that has been away for the longest time gives up its place; null when all are there.
Evaluation::ReaderPtr Evaluation::takeOneAway()
{
    auto longest = readers_.end();
    for (auto reader = readers_.begin(); reader != readers_.end(); ++reader)
        if ((longest == readers_.end() || (*reader)->hadRoomAt < (*longest)->hadRoomAt) && (*reader)->series->isAway())
            longest = reader;
    if (longest == readers_.end())
        return nullptr;
    auto taken = std::move(*longest);
    readers_.erase(longest);
    return taken;
}

void Evaluation::dismiss(const std::vector<ReaderPtr>& readers) const
{
    for (const auto& reader : readers) {
        reader->series->close();
        reader->session->deliver(dismissal(id_));
    }
}

bool Evaluation::detach(const bayeux::BayeuxSession& session)
{
    ReaderPtr gone;
    {
        std::lock_guard lock(mutex_);
        const auto found = std::find_if(readers_.begin(), readers_.end(), [&](const ReaderPtr& reader) {
            return reader->session.get() == &session && !reader->series->isLost();
        });
        if (found != readers_.end()) {
            gone = std::move(*found);
            readers_.erase(found);
        }
        readAt_ = Clock::now();
        changed_.notify_all();
    }
    if (gone)
        gone->series->close();
    return gone != nullptr;
}

bool Evaluation::answer(std::string line)
{
    std::lock_guard lock(mutex_);
    if (!asking_ || line_)
        return false;
    line_ = std::move(line);
    changed_.notify_all();
    return true;
}

void Evaluation::close()
{
    std::vector<ReaderPtr> dropped;
    std::lock_guard lock(mutex_);
    closed_ = true;
    dropped.swap(readers_);
    changed_.notify_all();
}

void Evaluation::forget()
{
    std::lock_guard lock(mutex_);
    forgotten_ = true;
    wakePump();
}

void Evaluation::begin()
{
    Lock lock(mutex_);
    state_ = State::running;
    readAt_ = Clock::now();
    append(lock, stateMembers("running"));
}

void Evaluation::end(const std::string& outcome)
{
    Lock lock(mutex_);
    asking_ = false;
    flush(lock, true);
    printed_.end();
    append(lock, outcome.substr(1, outcome.size() - 2));
    append(lock, stateMembers("ended"));
    state_ = State::ended;
    endedAt_ = Clock::now();
}

void Evaluation::write(rqe::Stream stream, std::string_view text)
{
    Lock lock(mutex_);
    if (closed_)
        return;
    add(stream, text);
    if (pieces_.bytes() >= mostAhead_)
        flush(lock, true);
}

bool Evaluation::tryWrite(rqe::Stream stream, std::string_view text)
{
    if (printed_.add(stream, text)) {
        if (!pumpKnows_)
            wakePump();
        return true;
    }
    const Lock lock(mutex_, std::try_to_lock);
    if (!lock || closed_ || pieces_.bytes() + text.size() >= mostAhead_)
        return false;
    add(stream, text);
    return true;
}

/// The pump comes in a while, and at once for a whole piece.
void Evaluation::add(rqe::Stream stream, std::string_view text)
{
    const bool wasShort = pieces_.bytes() < Pieces::kBytes;
    gather();
    printed_.restart(stream);
    pieces_.add(stream, text);
    if (!pumpKnows_ || (wasShort && pieces_.bytes() >= Pieces::kBytes))
        wakePump();
}

/// With the lock held, as always before pieces_ is looked at.
void Evaluation::gather() { pieces_.add(printed_.stream(), printed_.take()); }

std::optional<std::string> Evaluation::readLine(milliseconds patience)
{
    Lock lock(mutex_);
    if (!asking_) {
        line_.reset();
        flush(lock, true);
        append(lock, R"("kind":"input")");
        asking_ = true;
    }
    changed_.wait_for(lock, patience, [this] { return line_ || closed_; });
    dropLost();
    if (!std::all_of(readers_.begin(), readers_.end(), [](const auto& reader) { return reader->series->isAway(); }))
        readAt_ = Clock::now();
    if (!line_ && !closed_ && Clock::now() - readAt_ < limits_.inputPatience)
        return std::nullopt;
    asking_ = false;
    return std::exchange(line_, std::nullopt).value_or("");
}

void Evaluation::stopReading()
{
    Lock lock(mutex_);
    asking_ = false;
}

Evaluation::Clock::time_point Evaluation::pump()
{
    Lock lock(mutex_);
    auto next = Clock::time_point::max();
    pumpKnows_ = false;
    gather();
    const bool isDue = pieces_.bytes() >= Pieces::kBytes || Clock::now() >= flushedAt_ + kBatchTime;
    if (!pieces_.empty() && !(isDue && flush(lock, false)))
        next = std::max(flushedAt_ + kBatchTime, Clock::now() + milliseconds(1));
    for (const auto& reader : std::vector<ReaderPtr>(readers_)) {
        if (serve(lock, reader))
            continue;
        const auto now = Clock::now();
        next = std::min(next, now + std::clamp<Clock::duration>((now - reader->hadRoomAt) / kRetriesOfWait, kRetryTime,
                                                                kLongestRetry));
    }
    pumpKnows_ = next != Clock::time_point::max();
    if (state_ == State::ended)
        log_.settle();
    const auto dropped = forgotten_ ? takeForgotten() : std::vector<ReaderPtr>();
    lock.unlock();
    dismiss(dropped);
    return next;
}

/// Readers whose rest is not kept for them any longer.
std::vector<Evaluation::ReaderPtr> Evaluation::takeForgotten()
{
    std::vector<ReaderPtr> taken;
    for (const auto& reader : readers_)
        if (reader->next < log_.next() && standsStill(*reader, Clock::now()))
            taken.push_back(reader);
    for (const auto& reader : taken)
        std::erase(readers_, reader);
    return taken;
}

/// False when the reader is to get more, and has no room for it now.
bool Evaluation::serve(Lock& lock, const ReaderPtr& reader)
{
    while (reader->greeting || reader->next < log_.next()) {
        if (!reader->series->hasRoom())
            return false;
        reader->hadRoomAt = readAt_ = Clock::now();
        const auto events = batchFor(*reader);
        lock.unlock();
        const bool taken = std::all_of(events.begin(), events.end(),
                                       [&](const auto& event) { return reader->series->deliver(event); });
        lock.lock();
        changed_.notify_all();
        if (!taken) {
            std::erase(readers_, reader);
            return true;
        }
    }
    return true;
}

std::vector<bayeux::EventPtr> Evaluation::batchFor(Reader& reader)
{
    std::vector<bayeux::EventPtr> events;
    if (reader.greeting)
        events.push_back(std::exchange(reader.greeting, nullptr));
    if (reader.next < log_.first()) {
        const auto missing = log_.first() - reader.next;
        events.push_back(bayeux::BayeuxEvent::ofText(
            channel_, numbered(log_.first() - 1, R"("kind":"gap","missing":)" + std::to_string(missing))));
        reader.next = log_.first();
    }
    for (std::size_t bytes = 0; bytes < kBatchBytes && reader.next < log_.next(); ++reader.next) {
        const auto text = log_.read(reader.next);
        bytes += text.size();
        events.push_back(bayeux::BayeuxEvent::ofText(channel_, text));
    }
    return events;
}

/// Puts what was printed into the log. Without `wait`, and when closed, false if there is no room. The lock is free
/// while the events are written, so that the code goes on printing.
bool Evaluation::flush(Lock& lock, bool wait)
{
    for (;;) {
        // Again after each wait: older output may have been taken meanwhile, and comes first.
        changed_.wait(lock, [this] { return !flushing_; });
        gather();
        if (pieces_.empty() || makeRoom(2 * pieces_.bytes()))
            break;
        if (!wait)
            return false;
        if (!pumpKnows_)
            wakePump();
        changed_.wait_for(lock, kRoomLook);
    }
    auto pieces = pieces_.take();
    flushing_ = !pieces.empty();
    const std::shared_ptr<void> ended(nullptr, [&](std::nullptr_t) {
        if (!lock.owns_lock())
            lock.lock();
        flushing_ = false;
        changed_.notify_all();
    });
    for (auto& piece : pieces) {
        lock.unlock();
        piece.text = R"("kind":"output",)" + membersOf(piece);
        lock.lock();
        if (!closed_)
            store(piece.text);
    }
    flushedAt_ = Clock::now();
    return true;
}

void Evaluation::append(Lock& lock, const std::string& members)
{
    while (!closed_ && !makeRoom(members.size()))
        changed_.wait_for(lock, kRoomLook);
    if (closed_)
        return;
    store(members);
    wakePump();
}

/// A reader that has had everything so far stands still from now on at the earliest.
void Evaluation::store(const std::string& members)
{
    const auto now = Clock::now();
    for (const auto& reader : readers_)
        if (reader->next == log_.next())
            reader->hadRoomAt = now;
    log_.append(numbered(log_.next(), members));
}

bool Evaluation::makeRoom(std::size_t bytes)
{
    while (!closed_ && !log_.empty() && log_.bytes() + bytes > limits_.logBytes) {
        if (isAwaited(log_.first()))
            return false;
        log_.dropFirst();
    }
    return true;
}

/// Whether a reader that is there and moves has not had the event yet. One that moves again later is told what it
/// missed.
bool Evaluation::isAwaited(std::uint64_t number)
{
    dropLost();
    const auto now = Clock::now();
    return std::any_of(readers_.begin(), readers_.end(), [&](const ReaderPtr& reader) {
        return reader->next <= number && !standsStill(*reader, now) && !reader->series->isAway();
    });
}

bool Evaluation::standsStill(const Reader& reader, Clock::time_point now) const
{
    return now - reader.hadRoomAt > limits_.readerPatience;
}

void Evaluation::wakePump()
{
    const auto pump = pump_.lock();
    if (!pump)
        return;
    pumpKnows_ = true;
    pump->wake(shared_from_this());
}

} // namespace connector::interpreter::v1
