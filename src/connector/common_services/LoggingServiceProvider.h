#pragma once

#include <atomic>
#include <chrono>
#include <iosfwd>
#include <mutex>

#include "connector/common/TickManager.h"
#include "connector/common_services/LogRecord.h"
#include "connector/configuration/Configuration.h"
#include "connector/core/ServiceProvider.h"

namespace connector::common_services {

/// Writes the log records of clients to a stream, each as one line
/// "<ISO time in UTC> <LEVEL> <logger name>: <source>: <text>". Control characters and backslashes are escaped, invalid
/// UTF-8 becomes U+FFFD, and of a source and a text no more than 256 bytes and 4 KiB are kept.
///
/// `log.clientLevel` says from which level on records are written, `log.clientRecordsPerSecond` how many of them; the
/// number of those left out becomes a line of its own, once a second. Both keys take effect with the next record.
class CONNECTOR_API LoggingServiceProvider final : public ServiceProvider
{
public:
    /// `out` must outlive this. Throws std::invalid_argument without a configuration.
    LoggingServiceProvider(std::shared_ptr<configuration::Configuration> configuration, std::string loggerName,
                           std::ostream& out);
    ~LoggingServiceProvider() override;

    /// Takes a LogRecord. Failures: std::runtime_error "Service exists but is not running."; std::invalid_argument
    /// "Incorrect message type. …" for anything else.
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override;
    void start() override;
    void stop() override;
    bool isRunning() const override { return running_; }

private:
    bool write(const LogRecord& record);
    bool isWanted(common::LogLevel level);
    void tick();
    void endSecond();
    void writeLine(common::LogLevel level, std::string_view text);

    const std::shared_ptr<configuration::Configuration> configuration_;
    const std::string loggerName_;
    std::ostream& out_;
    std::atomic<bool> running_{false};

    std::mutex mutex_;
    std::chrono::steady_clock::time_point second_; ///< when the one that is counted began
    std::int64_t recordsOfSecond_ = 0;             ///< written
    std::int64_t leftOut_ = 0;
    std::string badLevel_; ///< what `log.clientLevel` was last found to be, when it is no level

    common::TickManager::Subscription subscription_;
};

} // namespace connector::common_services
