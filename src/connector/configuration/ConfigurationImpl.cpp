#include "connector/configuration/ConfigurationImpl.h"

#include <exception>
#include <iterator>
#include <utility>

#include <unistd.h>

#include "connector/common/Log.h"
#include "connector/configuration/ConfigurationSources.h"
#include "connector/configuration/KnownKeys.h"
#include "connector/configuration/ValueText.h"

namespace connector::configuration {

namespace {

constexpr const char* kLogSource = "connector.configuration";

template <class Entries>
auto& findIn(Entries& entries, const std::string& name)
{
    const auto found = entries.find(name);
    if (found == entries.end())
        throw ConfigurationError("There is no configuration key \"" + name + "\".");
    return found->second;
}

} // namespace

ConfigurationImpl::ConfigurationImpl()
{
    for (const auto& key : knownKeys())
        entries_.emplace(key.name, Entry{&key, key.defaultValue, "default", std::nullopt});
    read();
    for (const auto& problem : problems_)
        common::log(kLogSource, common::LogLevel::warning, problem);
}

ConfigurationImpl::~ConfigurationImpl() = default;

void ConfigurationImpl::read()
{
    std::vector<SourceContent> contents;
    for (const auto& file : configurationFiles())
        contents.push_back(readFile(file));
    contents.push_back(readEnvironment(environ));

    for (auto& content : contents) {
        problems_.insert(problems_.end(), std::make_move_iterator(content.problems.begin()),
                         std::make_move_iterator(content.problems.end()));
        for (auto& [key, text, source, place] : content.assignments) {
            const auto entry = entries_.find(key);
            try {
                find(key).configured = valueFromText(*find(key).key, text);
                find(key).source = std::move(source);
            } catch (const ConfigurationError& error) {
                auto problem = place + ": " + error.what();
                if (entry != entries_.end() && entry->second.key->strict)
                    throw ConfigurationError(problem);
                problems_.push_back(std::move(problem));
            }
        }
    }
}

const ConfigurationImpl::Entry& ConfigurationImpl::find(const std::string& name) const
{
    return findIn(entries_, name);
}

ConfigurationImpl::Entry& ConfigurationImpl::find(const std::string& name) { return findIn(entries_, name); }

Value ConfigurationImpl::get(const std::string& name) const
{
    std::shared_lock lock(mutex_);
    return find(name).value();
}

template <class T>
T ConfigurationImpl::getAs(const std::string& name) const
{
    auto value = get(name);
    if constexpr (std::is_same_v<T, double>) {
        if (const auto* integer = std::get_if<std::int64_t>(&value))
            return static_cast<double>(*integer);
    }
    if (auto* held = std::get_if<T>(&value))
        return std::move(*held);
    throw ConfigurationError("The key " + name + " is " + typeName(value) + "; it cannot be read as " +
                             typeName(Value(T())) + ".");
}

std::string ConfigurationImpl::getString(const std::string& name) const { return getAs<std::string>(name); }
std::int64_t ConfigurationImpl::getInteger(const std::string& name) const { return getAs<std::int64_t>(name); }
double ConfigurationImpl::getDouble(const std::string& name) const { return getAs<double>(name); }
bool ConfigurationImpl::getBool(const std::string& name) const { return getAs<bool>(name); }
std::vector<std::string> ConfigurationImpl::getList(const std::string& name) const
{
    return getAs<std::vector<std::string>>(name);
}

void ConfigurationImpl::set(const std::string& name, Value value)
{
    change(name, checkedValue(*find(name).key, std::move(value)));
}

void ConfigurationImpl::setFromText(const std::string& name, const std::string& text)
{
    change(name, valueFromText(*find(name).key, trimmed(text)));
}

void ConfigurationImpl::unset(const std::string& name) { change(name, std::nullopt); }

void ConfigurationImpl::change(const std::string& name, std::optional<Value> chosen)
{
    std::uint64_t change = 0;
    {
        std::lock_guard lock(mutex_);
        auto& entry = find(name);
        const auto before = entry.value();
        entry.chosen = std::move(chosen);
        if (entry.value() == before)
            return;
        news_.push_back({name, entry.value()});
        change = ++made_;
    }
    notifyUntil(change);
}

/// Returns when the listeners have heard of that change. Without one order for all threads, a listener could hear of an
/// older value last and keep it.
void ConfigurationImpl::notifyUntil(std::uint64_t change)
{
    const auto self = std::this_thread::get_id();
    std::unique_lock lock(mutex_);
    if (teller_ == self) {
        tellUntil_ = change; // made by a listener: told before the change ends that it was called for
        return;
    }
    tellerDone_.wait(lock, [&] { return told_ >= change || teller_ == std::thread::id(); });
    if (told_ >= change)
        return;
    teller_ = self;
    // Changes of others that come meanwhile are left to them.
    for (tellUntil_ = change; told_ < tellUntil_; ++told_, tellerDone_.notify_all()) {
        const News news = std::move(news_.front());
        news_.pop_front();
        lock.unlock();
        callListeners(news.name, news.value);
        lock.lock();
    }
    teller_ = {};
    tellerDone_.notify_all();
}

void ConfigurationImpl::callListeners(const std::string& name, const Value& value) const noexcept
{
    std::vector<std::shared_ptr<const Listener>> listeners;
    {
        std::shared_lock lock(mutex_);
        for (const auto& [id, subscriber] : subscribers_) {
            if (subscriber.name.empty() || subscriber.name == name)
                listeners.push_back(subscriber.listener);
        }
    }
    for (const auto& listener : listeners) {
        try {
            (*listener)(name, value);
        } catch (const std::exception& error) {
            common::log(kLogSource, common::LogLevel::error,
                        "A listener of the key " + name + " failed: " + error.what());
        } catch (...) {
            common::log(kLogSource, common::LogLevel::error,
                        "A listener of the key " + name + " failed with something that is no std::exception");
        }
    }
}

std::vector<Setting> ConfigurationImpl::list() const
{
    std::vector<Setting> settings;
    std::shared_lock lock(mutex_);
    for (const auto& [name, entry] : entries_)
        settings.push_back({name, entry.value(), entry.chosen ? "set" : entry.source, entry.key->description});
    return settings;
}

std::vector<std::string> ConfigurationImpl::problems() const { return problems_; }

Configuration::ListenerId ConfigurationImpl::addListener(const std::string& name, Listener listener)
{
    if (!listener)
        throw std::invalid_argument("A listener of the configuration needs a function.");
    if (!name.empty())
        find(name);
    std::lock_guard lock(mutex_);
    const auto id = nextListener_++;
    subscribers_.emplace(id, Subscriber{name, std::make_shared<const Listener>(std::move(listener))});
    return id;
}

void ConfigurationImpl::removeListener(ListenerId id)
{
    // What the listener owns goes after the lock.
    std::shared_ptr<const Listener> removed;
    std::lock_guard lock(mutex_);
    if (const auto found = subscribers_.find(id); found != subscribers_.end()) {
        removed = std::move(found->second.listener);
        subscribers_.erase(found);
    }
}

} // namespace connector::configuration
