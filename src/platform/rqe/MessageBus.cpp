#include "platform/rqe/MessageBus.h"

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace rqe {
namespace {

/// What is subscribed, and where. The bus is never called with the lock held.
class Switchboard
{
public:
    static Switchboard& instance()
    {
        static Switchboard switchboard;
        return switchboard;
    }

    void setBus(std::shared_ptr<MessageBus> bus)
    {
        std::lock_guard changing(changes_);
        std::vector<std::function<void()>> ended;
        std::vector<std::pair<std::uint64_t, Entry>> known;
        {
            std::lock_guard lock(mutex_);
            bus_ = bus;
            for (auto& [id, entry] : entries_) {
                ended.push_back(std::exchange(entry.undo, nullptr));
                known.emplace_back(id, entry);
            }
        }
        for (const auto& undo : ended)
            if (undo)
                undo();
        if (!bus)
            return;
        for (const auto& [id, entry] : known)
            attach(id, bus->subscribe(entry.channel, entry.receiver));
    }

    void clearBus(const MessageBus* bus)
    {
        if (this->bus().get() == bus)
            setBus(nullptr);
    }

    std::shared_ptr<MessageBus> bus()
    {
        std::lock_guard lock(mutex_);
        return bus_;
    }

    std::uint64_t add(const std::string& channel, MessageBus::Receiver receiver)
    {
        std::lock_guard changing(changes_);
        const auto current = bus();
        auto undo = current ? current->subscribe(channel, receiver) : nullptr;
        std::lock_guard lock(mutex_);
        entries_[++lastId_] = {channel, std::move(receiver), std::move(undo)};
        return lastId_;
    }

    void remove(std::uint64_t id)
    {
        std::function<void()> undo;
        {
            std::lock_guard lock(mutex_);
            const auto found = entries_.find(id);
            if (found == entries_.end())
                return;
            undo = std::move(found->second.undo);
            entries_.erase(found);
        }
        if (undo)
            undo();
    }

private:
    struct Entry
    {
        std::string channel;
        MessageBus::Receiver receiver;
        std::function<void()> undo;
    };

    /// An entry that was removed meanwhile has nobody left to end its subscription.
    void attach(std::uint64_t id, std::function<void()> undo)
    {
        {
            std::lock_guard lock(mutex_);
            const auto found = entries_.find(id);
            if (found != entries_.end()) {
                found->second.undo = std::move(undo);
                return;
            }
        }
        undo();
    }

    std::mutex changes_; ///< held while subscriptions are added or moved; before mutex_
    std::mutex mutex_;
    std::shared_ptr<MessageBus> bus_;
    std::map<std::uint64_t, Entry> entries_;
    std::uint64_t lastId_ = 0;
};

class Listed final : public ProcessBus::Subscription
{
public:
    explicit Listed(std::uint64_t id) : id_(id) {}
    ~Listed() override { Switchboard::instance().remove(id_); }

private:
    const std::uint64_t id_;
};

} // namespace

MessageBus::~MessageBus() = default;
ProcessBus::Subscription::~Subscription() = default;

void ProcessBus::setBus(std::shared_ptr<MessageBus> bus) { Switchboard::instance().setBus(std::move(bus)); }

void ProcessBus::clearBus(const MessageBus* bus) { Switchboard::instance().clearBus(bus); }

void ProcessBus::publish(const std::string& channel, const std::string& json, const MessageBus::GoOn& goOn)
{
    const auto bus = Switchboard::instance().bus();
    if (!bus)
        throw std::runtime_error("The connector is not running.");
    bus->publish(channel, json, goOn);
}

void ProcessBus::tell(const std::string& channel, const std::string& json)
{
    if (const auto bus = Switchboard::instance().bus())
        bus->tell(channel, json);
}

bool ProcessBus::hasSubscribers(const std::string& channel)
{
    const auto bus = Switchboard::instance().bus();
    return bus && bus->hasSubscribers(channel);
}

bool ProcessBus::isReserved(const std::string& channel)
{
    const auto bus = Switchboard::instance().bus();
    return bus && bus->isReserved(channel);
}

std::unique_ptr<ProcessBus::Subscription> ProcessBus::subscribe(const std::string& channel,
                                                                MessageBus::Receiver receiver)
{
    return std::make_unique<Listed>(Switchboard::instance().add(channel, std::move(receiver)));
}

} // namespace rqe
