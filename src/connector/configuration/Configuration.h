#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "connector/Export.h"

namespace connector::configuration {

/// Text, whole number, number, truth value, or a list of texts.
using Value = std::variant<std::string, std::int64_t, double, bool, std::vector<std::string>>;

/// A key that nobody declared, or a value of the wrong type or outside its bounds; says which, and where it came from.
class CONNECTOR_API ConfigurationError : public std::invalid_argument
{
public:
    explicit ConfigurationError(const std::string& message);
    ~ConfigurationError() override;
};

/// One declared key.
struct Key
{
    std::string name;   ///< dotted, lower camel case: "http.port"
    Value defaultValue; ///< also says the type
    std::string description;
    std::optional<double> minimum = std::nullopt; ///< of numbers
    std::optional<double> maximum = std::nullopt;
    bool strict = false; ///< nothing starts on a value that cannot be: another than the one meant would do harm
};

/// A key as it stands.
struct Setting
{
    std::string name;
    Value value;
    std::string source; ///< "default", a file's path, "environment VENDRA_…", or "set"
    std::string description;
};

/// Settings by dotted key: defaults, then the file of the install root, then the user's file, then the environment,
/// then what was set while running. All keys of the system are declared in KnownKeys.cpp. Threads: any.
class CONNECTOR_API Configuration : public std::enable_shared_from_this<Configuration>
{
public:
    using Listener = std::function<void(const std::string& name, const Value& value)>;
    using ListenerId = std::uint64_t;

    virtual ~Configuration() = default;

    /// Each throws ConfigurationError for an unknown key or another type. An integer reads as a double too.
    virtual std::string getString(const std::string& name) const = 0;
    virtual std::int64_t getInteger(const std::string& name) const = 0;
    virtual double getDouble(const std::string& name) const = 0;
    virtual bool getBool(const std::string& name) const = 0;
    virtual std::vector<std::string> getList(const std::string& name) const = 0;
    virtual Value get(const std::string& name) const = 0;

    /// Checks type and bounds, keeps the value for the life of this object, calls listeners when it changed.
    virtual void set(const std::string& name, Value value) = 0;
    /// The same from text, read according to the key's type: true/false, numbers, comma-separated lists.
    virtual void setFromText(const std::string& name, const std::string& text) = 0;
    /// Back to what files and environment say.
    virtual void unset(const std::string& name) = 0;

    /// In name order.
    virtual std::vector<Setting> list() const = 0;
    /// What was wrong with files and environment when they were read, one text each naming key and source; those values
    /// were left out. There is no configuration with a wrong value of a strict key.
    virtual std::vector<std::string> problems() const = 0;

    /// Called after a change of `name` (all keys when empty), without a lock held, one change after the other in the
    /// order in which they were made: on the thread that made it, which `set` waits for, or on one that made another at
    /// the same time. What a listener itself changes is told after it returns; it must not wait for a change of another
    /// thread.
    virtual ListenerId addListener(const std::string& name, Listener listener) = 0;
    virtual void removeListener(ListenerId id) = 0;
};

} // namespace connector::configuration
