#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>

#include "connector/configuration/Configuration.h"

namespace connector::configuration {

/// The settings of this process. Files and environment are read once, by the constructor.
class CONNECTOR_API ConfigurationImpl final : public Configuration
{
public:
    ConfigurationImpl();
    ~ConfigurationImpl() override;

    std::string getString(const std::string& name) const override;
    std::int64_t getInteger(const std::string& name) const override;
    double getDouble(const std::string& name) const override;
    bool getBool(const std::string& name) const override;
    std::vector<std::string> getList(const std::string& name) const override;
    Value get(const std::string& name) const override;
    void set(const std::string& name, Value value) override;
    void setFromText(const std::string& name, const std::string& text) override;
    void unset(const std::string& name) override;
    std::vector<Setting> list() const override;
    std::vector<std::string> problems() const override;
    ListenerId addListener(const std::string& name, Listener listener) override;
    void removeListener(ListenerId id) override;

private:
    struct Entry
    {
        const Key* key;
        Value configured;            ///< by default, files and environment
        std::string source;          ///< of `configured`
        std::optional<Value> chosen; ///< by `set`

        const Value& value() const noexcept { return chosen ? *chosen : configured; }
    };
    struct Subscriber
    {
        std::string name;
        std::shared_ptr<const Listener> listener;
    };

    void read();
    const Entry& find(const std::string& name) const;
    Entry& find(const std::string& name);
    template <class T>
    T getAs(const std::string& name) const;
    void change(const std::string& name, std::optional<Value> chosen);
    void notifyUntil(std::uint64_t change);
    void callListeners(const std::string& name, const Value& value) const noexcept;

    mutable std::shared_mutex mutex_;                   ///< never held while a listener is called
    std::map<std::string, Entry, std::less<>> entries_; ///< the keys never change
    std::vector<std::string> problems_;                 ///< never changes
    std::map<ListenerId, Subscriber> subscribers_;
    ListenerId nextListener_ = 1;

    // Changes in the order in which they were made. One thread at a time tells the listeners of them.
    struct News
    {
        std::string name;
        Value value;
    };
    std::deque<News> news_;
    std::uint64_t made_ = 0; ///< changes so far
    std::uint64_t told_ = 0; ///< of these, that all listeners have heard of
    std::thread::id teller_;
    std::uint64_t tellUntil_ = 0; ///< where the teller ends
    std::condition_variable_any tellerDone_;
};

} // namespace connector::configuration
