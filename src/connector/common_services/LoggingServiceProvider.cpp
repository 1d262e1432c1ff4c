#include "connector/common_services/LoggingServiceProvider.h"

#include <ostream>
#include <stdexcept>
#include <typeinfo>

#include "connector/common/LogRules.h"
#include "platform/fl/log_text.h"

namespace connector::common_services {

namespace {

using common::LogLevel;
using namespace std::chrono_literals;

constexpr std::size_t kMaxTextBytes = 4'096;
constexpr std::size_t kMaxSourceBytes = 256;
constexpr std::chrono::seconds kSecond = 1s;

} // namespace

LoggingServiceProvider::LoggingServiceProvider(std::shared_ptr<configuration::Configuration> configuration,
                                               std::string loggerName, std::ostream& out)
    : configuration_(std::move(configuration)), loggerName_(std::move(loggerName)), out_(out)
{
    if (!configuration_)
        throw std::invalid_argument("The service for clients' log records needs the configuration.");
}

LoggingServiceProvider::~LoggingServiceProvider() { stop(); }

void LoggingServiceProvider::start()
{
    if (!running_.exchange(true))
        subscription_ = common::TickManager::instance()->every(kSecond, [this] { tick(); });
}

void LoggingServiceProvider::stop()
{
    if (!running_.exchange(false))
        return;
    subscription_.reset();
    std::lock_guard lock(mutex_);
    endSecond();
}

MessageFuture LoggingServiceProvider::deliver(std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    try {
        if (!isRunning())
            throw std::runtime_error("Service exists but is not running.");
        if (const auto* record = dynamic_cast<const LogRecord*>(message.get()))
            return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<LogRecordResponse>(write(*record)));
        const Message* actual = message.get();
        throw std::invalid_argument(std::string("Incorrect message type. Expected: ") + typeid(LogRecord).name() +
                                    " but found " + (actual ? typeid(*actual).name() : "nothing"));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

bool LoggingServiceProvider::write(const LogRecord& record)
{
    const auto limit = configuration_->getInteger("log.clientRecordsPerSecond");
    std::lock_guard lock(mutex_);
    if (!isWanted(record.level))
        return false;
    const auto now = std::chrono::steady_clock::now();
    if (now - second_ >= kSecond) {
        endSecond();
        second_ = now;
    }
    if (recordsOfSecond_ >= limit) {
        ++leftOut_;
        return false;
    }
    ++recordsOfSecond_;
    std::string line;
    fl::log_text::appendShortened(line, record.source, kMaxSourceBytes);
    if (!line.empty())
        line += ": ";
    fl::log_text::appendShortened(line, record.text, kMaxTextBytes);
    writeLine(record.level, line);
    return true;
}

/// With the lock held.
bool LoggingServiceProvider::isWanted(LogLevel level)
{
    const auto text = configuration_->getString("log.clientLevel");
    const auto wanted = common::levelNamed(text);
    if (!wanted && std::exchange(badLevel_, text) != text)
        common::log("connector.common_services", LogLevel::warning,
                    "log.clientLevel is \"" + text +
                        "\", not off, error, warning, info, debug or trace; info is used.");
    return level != LogLevel::off && level <= wanted.value_or(LogLevel::info);
}

void LoggingServiceProvider::tick()
{
    std::lock_guard lock(mutex_);
    if (std::chrono::steady_clock::now() - second_ >= kSecond)
        endSecond();
}

/// With the lock held.
void LoggingServiceProvider::endSecond()
{
    recordsOfSecond_ = 0;
    if (const auto count = std::exchange(leftOut_, 0))
        writeLine(LogLevel::warning, std::to_string(count) + " records of clients were left out: there were more than "
                                                             "log.clientRecordsPerSecond in a second.");
}

/// With the lock held. Flushed, so that a line is there when the process ends badly.
void LoggingServiceProvider::writeLine(LogLevel level, std::string_view text)
{
    std::string line = fl::log_text::timeText(std::chrono::system_clock::now()) + " " + common::levelName(level) + " " +
                       loggerName_ + ": ";
    line += text;
    line += '\n';
    out_.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
}

} // namespace connector::common_services
