#include "platform/fl/diagnostic_logger.h"

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/predicates/has_attr.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/utility/formatting_ostream.hpp>
#include <boost/make_shared.hpp>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

#include "platform/fl/log_text.h"

namespace fl::log {
namespace {

namespace blog = boost::log;
using Clock = std::chrono::system_clock;
using Sink = blog::sinks::synchronous_sink<blog::sinks::text_ostream_backend>;

constexpr const char* kLoggerAttribute = "VendraLogger"; // std::string
constexpr const char* kLevelAttribute = "VendraLevel";   // unsigned
constexpr const char* kTimeAttribute = "VendraTime";     // Clock::time_point
constexpr const char* kMessageAttribute = "Message";     // std::string

/// The name of the most severe bit.
const char* levelName(unsigned level) noexcept
{
    constexpr const char* kNames[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
    for (unsigned bit = 0; bit < std::size(kNames); ++bit)
        if ((level & 1u << bit) != 0)
            return kNames[bit];
    return "OTHER";
}

std::string escaped(std::string_view text)
{
    std::string line;
    log_text::appendEscaped(line, text);
    return line;
}

void formatRecord(const blog::record_view& record, blog::formatting_ostream& out)
{
    const auto time = blog::extract<Clock::time_point>(kTimeAttribute, record);
    const auto level = blog::extract<unsigned>(kLevelAttribute, record);
    const auto logger = blog::extract<std::string>(kLoggerAttribute, record);
    const auto message = blog::extract<std::string>(kMessageAttribute, record);
    out << log_text::timeText(time ? time.get() : Clock::now()) << ' ' << levelName(level ? level.get() : 0) << ' '
        << (logger ? escaped(logger.get()) : std::string()) << ": "
        << (message ? escaped(message.get()) : std::string());
}

using Setting = std::pair<std::string, unsigned>;

std::vector<Setting> parseMasks(std::string_view specification)
{
    std::vector<Setting> settings;
    while (!specification.empty()) {
        const std::size_t comma = specification.find(',');
        const std::string_view part = specification.substr(0, comma);
        const std::size_t equals = part.find('=');
        const std::string_view digits = equals == std::string_view::npos ? "" : part.substr(equals + 1);
        unsigned mask = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), mask);
        const bool endsWithComma = comma != std::string_view::npos && comma + 1 == specification.size();
        if (equals == 0 || error != std::errc() || end != digits.data() + digits.size() || endsWithComma)
            throw std::invalid_argument("Log masks are written name=mask,name=mask; \"" +
                                        std::string(endsWithComma ? specification : part) + "\" is not understood.");
        settings.emplace_back(part.substr(0, equals), mask);
        specification.remove_prefix(comma == std::string_view::npos ? specification.size() : comma + 1);
    }
    return settings;
}

/// The process's masks and the sink. Made with the first logger, hence destroyed after every logger, static or not.
class HostLog
{
public:
    HostLog()
        : core_(blog::core::get()),
          sink_(boost::make_shared<Sink>(boost::make_shared<blog::sinks::text_ostream_backend>()))
    {
        sink_->locked_backend()->add_stream(boost::shared_ptr<std::ostream>(&std::clog, boost::null_deleter()));
        sink_->locked_backend()->auto_flush(true);
        // The core is shared with other libraries of the process, whose records are not ours to print.
        sink_->set_filter(blog::expressions::has_attr(kLoggerAttribute));
        sink_->set_formatter(&formatRecord);
        core_->add_sink(sink_);

        if (const char* const masks = std::getenv("VENDRA_LOG")) {
            try {
                set(parseMasks(masks));
            } catch (const std::invalid_argument& error) {
                write("fl::log", level::kWarning, std::string("VENDRA_LOG is ignored. ") + error.what());
            }
        }
    }

    ~HostLog() { core_->remove_sink(sink_); }
    HostLog(const HostLog&) = delete;
    HostLog& operator=(const HostLog&) = delete;

    static HostLog& instance()
    {
        static HostLog log;
        return log;
    }

    std::shared_ptr<std::atomic<unsigned>> maskFor(std::string_view loggerName)
    {
        const std::lock_guard lock(mutex_);
        return entryFor(loggerName).mask;
    }

    void set(const std::vector<Setting>& settings)
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [name, mask] : settings) {
            if (name != "*") {
                Entry& entry = entryFor(name);
                entry.own = true;
                entry.mask->store(mask, std::memory_order_relaxed);
                continue;
            }
            defaultMask_ = mask;
            for (auto& [otherName, entry] : entries_)
                if (!entry.own)
                    entry.mask->store(mask, std::memory_order_relaxed);
        }
    }

    void write(std::string_view loggerName, unsigned level, std::string_view text)
    {
        blog::attribute_set attributes;
        attributes[kLoggerAttribute] = blog::attributes::constant<std::string>(std::string(loggerName));
        attributes[kLevelAttribute] = blog::attributes::constant<unsigned>(level);
        attributes[kTimeAttribute] = blog::attributes::constant<Clock::time_point>(Clock::now());
        blog::record record = core_->open_record(attributes);
        if (!record)
            return;
        record.attribute_values().insert(kMessageAttribute, blog::attributes::make_attribute_value(std::string(text)));
        core_->push_record(std::move(record));
    }

private:
    struct Entry
    {
        std::shared_ptr<std::atomic<unsigned>> mask;
        bool own = false; ///< set by name, so that "*" leaves it alone
    };

    Entry& entryFor(std::string_view name)
    {
        auto found = entries_.find(name);
        if (found == entries_.end())
            found =
                entries_.emplace(std::string(name), Entry{std::make_shared<std::atomic<unsigned>>(defaultMask_), false})
                    .first;
        return found->second;
    }

    boost::shared_ptr<blog::core> core_;
    boost::shared_ptr<Sink> sink_;
    std::mutex mutex_;
    std::map<std::string, Entry, std::less<>> entries_;
    unsigned defaultMask_ = level::kDefaultMask;
};

} // namespace

void setMask(std::string_view loggerName, unsigned mask) { HostLog::instance().set({{std::string(loggerName), mask}}); }

void setMasks(std::string_view specification) { HostLog::instance().set(parseMasks(specification)); }

std::shared_ptr<std::atomic<unsigned>> detail::maskFor(std::string_view loggerName)
{
    return HostLog::instance().maskFor(loggerName);
}

void detail::write(std::string_view loggerName, unsigned level, std::string_view text)
{
    HostLog::instance().write(loggerName, level, text);
}

} // namespace fl::log
