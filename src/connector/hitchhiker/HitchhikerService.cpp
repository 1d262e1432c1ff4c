#include "connector/hitchhiker/HitchhikerService.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "connector/core/ServiceFault.h"
#include "connector/json/JsonText.h"

namespace connector::hitchhiker::v1 {
namespace {

constexpr std::chrono::seconds kSweepInterval{30};

} // namespace

HitchhikerServiceImpl::HitchhikerServiceImpl() : HitchhikerServiceImpl(&Clock::now) {}

HitchhikerServiceImpl::HitchhikerServiceImpl(std::function<Clock::time_point()> now) : now_(std::move(now)) {}

HitchhikerServiceImpl::~HitchhikerServiceImpl() = default;

std::size_t HitchhikerServiceImpl::queueMessage(const std::string& sessionId, Poco::JSON::Object::Ptr message)
{
    if (sessionId.size() > kMaxIdBytes)
        throw std::invalid_argument("A session's id has at most " + std::to_string(kMaxIdBytes) + " bytes, not " +
                                    std::to_string(sessionId.size()) + ".");
    const Waiting waiting{message, json::write(Poco::Dynamic::Var(message)).size()};
    if (waiting.bytes > kMaxSessionBytes)
        throw std::invalid_argument("A message of " + std::to_string(waiting.bytes) + " bytes is too long to wait: " +
                                    "at most " + std::to_string(kMaxSessionBytes) + ".");

    const auto now = now_();
    std::lock_guard lock(mutex_);
    if (now >= nextSweep_)
        forgetOld(now);
    std::vector<Queue*> targets;
    if (!sessionId.empty()) {
        if (auto* queue = findOrAdd(sessionId, now))
            targets.push_back(queue);
    } else {
        for (auto& [id, queue] : queues_)
            if (queue.seen && !isOver(queue, now))
                targets.push_back(&queue);
    }
    if (bytes_ + targets.size() * waiting.bytes > kMaxBytes)
        throw ServiceFault("busy", "Messages of " + std::to_string(bytes_) + " bytes wait for their clients already.");
    for (auto* queue : targets)
        append(*queue, waiting);
    return targets.size();
}

QueuedMessages HitchhikerServiceImpl::getQueuedMessages(const std::shared_ptr<http::HttpSession>& session)
{
    QueuedMessages taken;
    if (!session || session->isOver())
        return taken;
    const auto now = now_();
    std::lock_guard lock(mutex_);
    if (now >= nextSweep_)
        forgetOld(now);
    auto found = queues_.find(session->id());
    if (found == queues_.end()) {
        if (!makeRoom(now, true))
            return taken;
        found = queues_.try_emplace(session->id()).first;
    } else if (isOver(found->second, now)) {
        // It came too late for what waited.
        bytes_ -= found->second.bytes;
        found->second = Queue();
    }
    auto& queue = found->second;
    queue.lastUse = now;
    if (!queue.seen) {
        queue.seen = true;
        queue.session = session;
    }
    taken.dropped = std::exchange(queue.dropped, 0);
    bytes_ -= std::exchange(queue.bytes, 0);
    taken.messages.reserve(queue.waiting.size());
    for (auto& waiting : queue.waiting)
        taken.messages.push_back(std::move(waiting.message));
    queue.waiting.clear();
    return taken;
}

bool HitchhikerServiceImpl::isOver(const Queue& queue, Clock::time_point now) const
{
    if (!queue.seen)
        return now - queue.lastUse >= kLife;
    const auto session = queue.session.lock();
    return !session || session->isOver();
}

void HitchhikerServiceImpl::forgetOld(Clock::time_point now)
{
    nextSweep_ = now + kSweepInterval;
    for (auto entry = queues_.begin(); entry != queues_.end();) {
        if (isOver(entry->second, now)) {
            bytes_ -= entry->second.bytes;
            entry = queues_.erase(entry);
        } else {
            ++entry;
        }
    }
}

/// What is given up for another session goes first: ids that nobody came with, then sessions that nothing waits for,
/// the one first that has not been answered for the longest time.
std::tuple<bool, bool, HitchhikerServiceImpl::Clock::time_point> HitchhikerServiceImpl::worth(const Queue& queue)
{
    return {queue.seen, queue.seen && !queue.waiting.empty(), queue.lastUse};
}

/// Whether one more session may be remembered. `forSeen`: it may take the place of an id that nobody came with so far,
/// or of a session that nothing waits for.
bool HitchhikerServiceImpl::makeRoom(Clock::time_point now, bool forSeen)
{
    if (queues_.size() >= kMaxSessions)
        forgetOld(now);
    if (queues_.size() < kMaxSessions)
        return true;
    if (!forSeen)
        return false;
    auto least = queues_.end();
    for (auto entry = queues_.begin(); entry != queues_.end(); ++entry)
        if (least == queues_.end() || worth(entry->second) < worth(least->second))
            least = entry;
    if (least == queues_.end() || (least->second.seen && !least->second.waiting.empty()))
        return false;
    bytes_ -= least->second.bytes;
    queues_.erase(least);
    return true;
}

/// Null when the session is known to be over.
HitchhikerServiceImpl::Queue* HitchhikerServiceImpl::findOrAdd(const std::string& id, Clock::time_point now)
{
    const auto found = queues_.find(id);
    if (found != queues_.end())
        return isOver(found->second, now) ? nullptr : &found->second;
    if (!makeRoom(now, false))
        throw ServiceFault("busy", "Messages wait for " + std::to_string(kMaxSessions) + " sessions already.");
    auto& queue = queues_[id];
    queue.lastUse = now;
    return &queue;
}

void HitchhikerServiceImpl::append(Queue& queue, const Waiting& message)
{
    while (!queue.waiting.empty() &&
           (queue.waiting.size() >= kMaxMessages || queue.bytes + message.bytes > kMaxSessionBytes))
        dropOldest(queue);
    queue.waiting.push_back(message);
    queue.bytes += message.bytes;
    bytes_ += message.bytes;
}

void HitchhikerServiceImpl::dropOldest(Queue& queue)
{
    queue.bytes -= queue.waiting.front().bytes;
    bytes_ -= queue.waiting.front().bytes;
    queue.waiting.pop_front();
    ++queue.dropped;
}

} // namespace connector::hitchhiker::v1
