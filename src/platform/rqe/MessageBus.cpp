#include "platform/rqe/MessageBus.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace rqe {
namespace {

/// What stays while buses come and go, and where it is. The bus is never called with the lock held.
class Switchboard
{
public:
    using Undo = std::function<void()>;
    /// Puts an entry on a bus.
    using Attach = std::function<Undo(MessageBus& bus)>;

    static Switchboard& instance()
    {
        static Switchboard switchboard;
        return switchboard;
    }

    void setBus(std::shared_ptr<MessageBus> bus)
    {
        std::lock_guard changing(changes_);
        std::vector<Undo> ended;
        std::vector<std::pair<std::uint64_t, Attach>> known;
        {
            std::lock_guard lock(mutex_);
            bus_ = bus;
            for (auto& [id, entry] : entries_) {
                ended.push_back(std::exchange(entry.undo, nullptr));
                known.emplace_back(id, entry.attach);
            }
        }
        for (const auto& undo : ended)
            if (undo)
                undo();
        if (!bus)
            return;
        for (const auto& [id, attach] : known)
            attachAgain(id, attach, *bus);
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

    std::uint64_t add(Attach attach)
    {
        std::lock_guard changing(changes_);
        const auto current = bus();
        auto undo = current ? attach(*current) : nullptr;
        std::lock_guard lock(mutex_);
        entries_[++lastId_] = {std::move(attach), std::move(undo)};
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
        Attach attach;
        Undo undo;
    };

    /// What was added while there was no bus has not been looked at before; one bad name takes nothing from the others.
    void attachAgain(std::uint64_t id, const Attach& attach, MessageBus& bus)
    {
        Undo undo;
        try {
            undo = attach(bus);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "connector: left out: %s\n", error.what());
            return;
        }
        // An entry that was removed meanwhile has nobody left to end it.
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

std::unique_ptr<ProcessBus::Subscription> list(Switchboard::Attach attach)
{
    return std::make_unique<Listed>(Switchboard::instance().add(std::move(attach)));
}

} // namespace

ServiceCall::~ServiceCall() = default;
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
    return list(
        [channel, receiver = std::move(receiver)](MessageBus& bus) { return bus.subscribe(channel, receiver); });
}

std::unique_ptr<ProcessBus::Subscription> ProcessBus::serve(const std::string& channel, MessageBus::Server server)
{
    return list([channel, server = std::move(server)](MessageBus& bus) { return bus.serve(channel, server); });
}

std::unique_ptr<ProcessBus::Subscription> ProcessBus::rule(const std::string& channel, const ChannelRule& rule)
{
    return list([channel, rule](MessageBus& bus) { return bus.rule(channel, rule); });
}

std::vector<BusSession> ProcessBus::sessions()
{
    const auto bus = Switchboard::instance().bus();
    return bus ? bus->sessions() : std::vector<BusSession>();
}

bool ProcessBus::endSession(const std::string& id)
{
    const auto bus = Switchboard::instance().bus();
    return bus && bus->endSession(id);
}

} // namespace rqe
