#include "connector/common/Log.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/predicates/has_attr.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/utility/formatting_ostream.hpp>
#include <boost/make_shared.hpp>

#include "connector/common/LogRules.h"
#include "connector/common/LogTarget.h"
#include "platform/fl/log_text.h"

namespace connector::common {

namespace {

namespace blog = boost::log;
using Clock = std::chrono::system_clock;

constexpr const char* kSourceAttribute = "ConnectorSource"; // std::string
constexpr const char* kLevelAttribute = "ConnectorLevel";   // LogLevel
constexpr const char* kTimeAttribute = "ConnectorTime";     // Clock::time_point
constexpr const char* kMessageAttribute = "Message";        // std::string

constexpr std::size_t kMaxTextBytes = 64u << 10;

/// Formats a record and hands it to the target of the time.
class Backend final : public blog::sinks::basic_sink_backend<blog::sinks::concurrent_feeding>
{
public:
    explicit Backend(std::unique_ptr<LogTarget> target) : target_(std::move(target)) {}

    std::unique_ptr<LogTarget> exchangeTarget(std::unique_ptr<LogTarget> target)
    {
        std::lock_guard lock(mutex_);
        return std::exchange(target_, std::move(target));
    }

    void consume(const blog::record_view& record)
    {
        const auto time = blog::extract<Clock::time_point>(kTimeAttribute, record);
        const auto level = blog::extract<LogLevel>(kLevelAttribute, record);
        const auto source = blog::extract<std::string>(kSourceAttribute, record);
        const auto message = blog::extract<std::string>(kMessageAttribute, record);
        if (!time || !level || !source || !message)
            return;
        auto line = fl::log_text::timeText(*time) + " " + levelName(*level) + " ";
        fl::log_text::appendShortened(line, *source, kMaxTextBytes);
        line += ": ";
        fl::log_text::appendShortened(line, *message, kMaxTextBytes);
        line += '\n';
        std::lock_guard lock(mutex_);
        if (target_)
            target_->write(line);
    }

private:
    std::mutex mutex_;
    std::unique_ptr<LogTarget> target_;
};

using Sink = blog::sinks::unlocked_sink<Backend>;

/// The highest level that is logged anywhere; all that most calls look at. Off again once the log is gone.
std::atomic<LogLevel> ceilingNow{LogLevel::warning};
std::atomic<bool> logIsGone{false};

/// The connector's log. Made on first use, removed from the process's logging core with the library.
class ConnectorLog
{
public:
    static ConnectorLog& instance()
    {
        static ConnectorLog log;
        return log;
    }

    ConnectorLog()
        : core_(blog::core::get()), backend_(boost::make_shared<Backend>(makeLogTarget("stderr"))),
          sink_(boost::make_shared<Sink>(backend_))
    {
        // Others in the process log through the same core.
        sink_->set_filter(blog::expressions::has_attr(kSourceAttribute));
        core_->add_sink(sink_);
    }

    ~ConnectorLog()
    {
        logIsGone = true;
        ceilingNow = LogLevel::off;
        core_->remove_sink(sink_);
    }
    ConnectorLog(const ConnectorLog&) = delete;
    ConnectorLog& operator=(const ConnectorLog&) = delete;

    void setDestination(const std::string& destination)
    {
        auto target = makeLogTarget(destination);
        std::lock_guard lock(mutex_);
        silent_ = target == nullptr;
        target = backend_->exchangeTarget(std::move(target));
        ceilingNow = silent_ ? LogLevel::off : rules_.ceiling();
    }

    void setRules(LogRules rules)
    {
        std::lock_guard lock(mutex_);
        rules_ = std::move(rules);
        generation_.fetch_add(1, std::memory_order_release);
        ceilingNow = silent_ ? LogLevel::off : rules_.ceiling();
    }

    /// The level of a source, remembered by the hash of its name: an entry is the hash with the level in its low bits.
    LogLevel levelOf(std::string_view source)
    {
        const auto hash = hashOf(source, generation_.load(std::memory_order_acquire));
        const auto known = entryOf(hash).load(std::memory_order_relaxed);
        if (((known ^ hash) & ~kLevelBits) == 0)
            return static_cast<LogLevel>(known & kLevelBits);

        std::lock_guard lock(mutex_);
        const auto level = rules_.levelOf(source);
        const auto current = hashOf(source, generation_.load(std::memory_order_relaxed));
        entryOf(current).store((current & ~kLevelBits) | static_cast<std::uint64_t>(level), std::memory_order_relaxed);
        return level;
    }

    void write(std::string_view source, LogLevel level, std::string_view text)
    {
        blog::attribute_set attributes;
        attributes[kSourceAttribute] = blog::attributes::constant<std::string>(std::string(source));
        attributes[kLevelAttribute] = blog::attributes::constant<LogLevel>(level);
        attributes[kTimeAttribute] = blog::attributes::constant<Clock::time_point>(Clock::now());
        auto record = core_->open_record(attributes);
        if (!record)
            return;
        record.attribute_values().insert(kMessageAttribute, blog::attributes::make_attribute_value(std::string(text)));
        core_->push_record(std::move(record));
    }

private:
    static constexpr std::uint64_t kLevelBits = 7;

    static std::uint64_t hashOf(std::string_view source, std::uint64_t generation) noexcept
    {
        // Never zero above the level's bits: an entry of zero is an empty one.
        return ((std::hash<std::string_view>()(source) ^ (generation * 0x9E3779B97F4A7C15u)) | 8u);
    }

    std::atomic<std::uint64_t>& entryOf(std::uint64_t hash) noexcept { return entries_[(hash >> 4) % entries_.size()]; }

    boost::shared_ptr<blog::core> core_;
    boost::shared_ptr<Backend> backend_;
    boost::shared_ptr<Sink> sink_;
    std::mutex mutex_;
    LogRules rules_{""};
    bool silent_ = false;
    std::atomic<std::uint64_t> generation_{1};
    std::array<std::atomic<std::uint64_t>, 256> entries_{};
};

} // namespace

void setLogDestination(const std::string& destination) { ConnectorLog::instance().setDestination(destination); }

void setLogSpecification(const std::string& specification)
{
    ConnectorLog::instance().setRules(LogRules(specification));
}

bool isLogged(std::string_view source, LogLevel level) noexcept
{
    if (level == LogLevel::off || level > ceilingNow.load(std::memory_order_relaxed))
        return false;
    return !logIsGone.load(std::memory_order_relaxed) && level <= ConnectorLog::instance().levelOf(source);
}

void log(std::string_view source, LogLevel level, std::string_view text)
{
    if (isLogged(source, level))
        ConnectorLog::instance().write(source, level, text);
}

} // namespace connector::common
