#include "connector/bayeux/ChannelRules.h"

#include <algorithm>

#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

namespace {

/// The names under which rules for all of `name` stand.
std::vector<std::string> coveringNames(const std::string& name)
{
    auto names = patternsOf(name);
    if (name.ends_with("/**")) // more than any "/*" stands for
        std::erase_if(names, [](const std::string& pattern) { return !pattern.ends_with("/**"); });
    if (std::find(names.begin(), names.end(), name) == names.end())
        names.push_back(name);
    return names;
}

} // namespace

void ChannelRuling::add(const RulePtr& rule)
{
    retain_ = retain_ || rule->retain;
    presence_ = presence_ || rule->presence;
    lazy_ = lazy_ || rule->lazy;
    if (!rule->publishers.everybody)
        publishing_.push_back(rule);
    restrict(rule);
}

void ChannelRuling::restrict(const RulePtr& rule)
{
    if (!rule->subscribers.everybody)
        subscribing_.push_back(rule);
}

bool ChannelRuling::mayPublish(const std::string& publicId) const
{
    return std::all_of(publishing_.begin(), publishing_.end(),
                       [&](const RulePtr& rule) { return rule->publishers.has(publicId); });
}

bool ChannelRuling::maySubscribe(const std::string& publicId) const
{
    return std::all_of(subscribing_.begin(), subscribing_.end(),
                       [&](const RulePtr& rule) { return rule->subscribers.has(publicId); });
}

std::shared_ptr<const ChannelRules::Table> ChannelRules::table() const
{
    std::lock_guard lock(mutex_);
    return table_;
}

template <class Change>
void ChannelRules::change(Change apply)
{
    std::lock_guard lock(mutex_);
    auto changed = std::make_shared<Table>(*table_);
    apply(*changed);
    any_ = !changed->empty();
    table_ = std::move(changed);
}

void ChannelRules::add(const std::string& name, RulePtr rule)
{
    change([&](Table& table) { table[name].push_back(std::move(rule)); });
}

void ChannelRules::remove(const std::string& name, const RulePtr& rule)
{
    change([&](Table& table) {
        const auto found = table.find(name);
        if (found == table.end())
            return;
        std::erase(found->second, rule);
        if (found->second.empty())
            table.erase(found);
    });
}

ChannelRuling ChannelRules::of(const std::string& name) const
{
    ChannelRuling ruling;
    if (!any_.load(std::memory_order_acquire))
        return ruling;
    const auto rules = table();
    const auto each = [&](const std::string& covered, auto apply) {
        for (const auto& key : coveringNames(covered)) {
            if (const auto found = rules->find(key); found != rules->end())
                std::for_each(found->second.begin(), found->second.end(), apply);
        }
    };
    each(name, [&](const RulePtr& rule) { ruling.add(rule); });
    if (name.starts_with(kPresencePrefix) && name.size() > kPresencePrefix.size() + 1)
        each(name.substr(kPresencePrefix.size()), [&](const RulePtr& rule) { ruling.restrict(rule); });
    return ruling;
}

} // namespace connector::bayeux
