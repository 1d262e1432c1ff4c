#include "connector/bayeux/BusSettings.h"

#include <map>

#include "connector/common/Log.h"
#include "connector/http/HttpText.h"

namespace connector::bayeux {

namespace {

using configuration::Configuration;

constexpr std::string_view kPrefix = "bus.";

std::chrono::milliseconds milliseconds(const Configuration& configuration, const char* key)
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(configuration.getDouble(key) * 1'000));
}

std::size_t size(const Configuration& configuration, const char* key)
{
    return static_cast<std::size_t>(configuration.getInteger(key));
}

/// What a key says of the channels in its list.
struct RuleKey
{
    const char* key;
    void (*write)(ChannelRule& rule);
};

void keepOut(Audience& audience) { audience.everybody = false; }

constexpr RuleKey kRuleKeys[] = {
    {"bus.hiddenChannels",
     [](ChannelRule& rule) {
         keepOut(rule.publishers);
         keepOut(rule.subscribers);
     }},
    {"bus.lazyChannels", [](ChannelRule& rule) { rule.lazy = true; }},
    {"bus.presenceChannels", [](ChannelRule& rule) { rule.presence = true; }},
    {"bus.readOnlyChannels", [](ChannelRule& rule) { keepOut(rule.publishers); }},
    {"bus.retainedChannels", [](ChannelRule& rule) { rule.retain = true; }},
};

} // namespace

BayeuxLimits readBusLimits(const Configuration& configuration)
{
    BayeuxLimits limits;
    limits.timeout = milliseconds(configuration, "bus.holdSeconds");
    limits.interval = milliseconds(configuration, "bus.intervalSeconds");
    limits.maxInterval = milliseconds(configuration, "bus.maxIdleSeconds");
    limits.lazyDelay = milliseconds(configuration, "bus.lazySeconds");
    limits.queueMessages = size(configuration, "bus.maxQueuedMessages");
    limits.queueBytes = size(configuration, "bus.maxQueuedBytes");
    limits.messageBytes = size(configuration, "bus.maxMessageBytes");
    limits.sessions = size(configuration, "bus.maxSessions");
    limits.subscriptions = size(configuration, "bus.maxSubscriptions");
    limits.channels = size(configuration, "bus.maxChannels");
    limits.batch = size(configuration, "bus.maxBatch");
    limits.retainedBytes = size(configuration, "bus.maxRetainedBytes");
    limits.pollsOfOneBrowser = static_cast<unsigned>(size(configuration, "bus.maxPollsOfOneBrowser"));
    limits.queueBytes = std::max(limits.queueBytes, limits.messageBytes);
    return limits;
}

/// Reads all keys anew with each change, so that changes made at once end in what holds last.
class BusSettings::Follower
{
public:
    Follower(std::shared_ptr<Configuration> configuration, std::shared_ptr<BayeuxServer> server)
        : configuration_(std::move(configuration)), server_(std::move(server))
    {}

    void apply()
    {
        std::lock_guard lock(mutex_);
        const auto limits = readBusLimits(*configuration_);
        if (const auto asked = size(*configuration_, "bus.maxQueuedBytes"); asked < limits.queueBytes)
            common::log("connector.bayeux", common::LogLevel::warning,
                        "bus.maxQueuedBytes: " + std::to_string(asked) + " is less than bus.maxMessageBytes, " +
                            std::to_string(limits.messageBytes) + ", which is taken for both.");
        server_->setLimits(limits);
        applyRules();
    }

private:
    using Registration = BayeuxServer::Registration;

    /// The new rules stand before the old ones go, so that nothing is open in between.
    void applyRules()
    {
        std::map<std::string, std::vector<std::string>> lists;
        for (const auto& [key, write] : kRuleKeys)
            lists[key] = configuration_->getList(key);
        if (lists == lists_)
            return;
        std::vector<Registration> rules;
        for (const auto& [key, write] : kRuleKeys) {
            for (const auto& channel : lists[key])
                addRule(key, channel, write, rules);
        }
        rules_.swap(rules);
        lists_ = std::move(lists);
    }

    void addRule(const char* key, const std::string& channel, void (*write)(ChannelRule&),
                 std::vector<Registration>& rules)
    {
        ChannelRule rule;
        write(rule);
        try {
            rules.push_back(server_->addRule(channel, rule));
        } catch (const std::invalid_argument&) {
            common::log("connector.bayeux", common::LogLevel::warning,
                        std::string(key) + ": \"" + http::printable(channel) +
                            "\" is neither a channel nor a pattern of channels and is left out.");
        }
    }

    std::mutex mutex_; ///< one change at a time
    const std::shared_ptr<Configuration> configuration_;
    const std::shared_ptr<BayeuxServer> server_;
    std::map<std::string, std::vector<std::string>> lists_; ///< what `rules_` were made of
    std::vector<Registration> rules_;
};

BusSettings::BusSettings(std::shared_ptr<Configuration> configuration, std::shared_ptr<BayeuxServer> server)
    : configuration_(std::move(configuration)), follower_(std::make_shared<Follower>(configuration_, std::move(server)))
{
    listener_ = configuration_->addListener(
        {}, [weak = std::weak_ptr(follower_)](const std::string& name, const configuration::Value&) {
            if (!name.starts_with(kPrefix))
                return;
            if (const auto follower = weak.lock())
                follower->apply();
        });
    follower_->apply();
}

BusSettings::~BusSettings() { configuration_->removeListener(listener_); }

} // namespace connector::bayeux
