#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>

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
    void notify(const std::string& name, const Value& value) const;

    mutable std::shared_mutex mutex_;
    std::map<std::string, Entry, std::less<>> entries_; ///< the keys never change
    std::vector<std::string> problems_;                 ///< never changes
    std::map<ListenerId, Subscriber> subscribers_;
    ListenerId nextListener_ = 1;
};

} // namespace connector::configuration
