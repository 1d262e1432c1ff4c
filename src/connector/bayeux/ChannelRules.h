#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <unordered_map>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// What all rules say together that match a channel: each of them adds to what it does, and each may keep clients out.
class ChannelRuling
{
public:
    using RulePtr = std::shared_ptr<const ChannelRule>;

    bool retain() const noexcept { return retain_; }
    bool presence() const noexcept { return presence_; }
    bool lazy() const noexcept { return lazy_; }
    bool mayPublish(const std::string& publicId) const;
    bool maySubscribe(const std::string& publicId) const;
    /// Whether `maySubscribe` says no to anybody.
    bool isRestricted() const noexcept { return !subscribing_.empty(); }

    void add(const RulePtr& rule);
    /// Of the rule only who may subscribe.
    void restrict(const RulePtr& rule);

private:
    bool retain_ = false;
    bool presence_ = false;
    bool lazy_ = false;
    std::vector<RulePtr> publishing_; ///< those that let not everybody
    std::vector<RulePtr> subscribing_;
};

/// Rules by the channel or pattern they stand for. Threads: any.
class ChannelRules
{
public:
    using RulePtr = ChannelRuling::RulePtr;

    void add(const std::string& name, RulePtr rule);
    void remove(const std::string& name, const RulePtr& rule);
    /// For a channel, or for a subscription to a pattern: then only rules that stand for all of it count. Who may not
    /// subscribe to a channel does not learn from "/presence" who is there.
    ChannelRuling of(const std::string& name) const;

private:
    using Table = std::unordered_map<std::string, std::vector<RulePtr>>;

    std::shared_ptr<const Table> table() const;
    template <class Change>
    void change(Change apply);

    mutable std::mutex mutex_;
    std::shared_ptr<const Table> table_ = std::make_shared<const Table>();
    std::atomic<bool> any_{false}; ///< read first: most servers have no rules
};

} // namespace connector::bayeux
