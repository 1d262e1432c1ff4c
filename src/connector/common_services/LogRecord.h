#pragma once

#include <string>

#include "connector/Export.h"
#include "connector/common/Log.h"
#include "connector/core/Message.h"

namespace connector::common_services {

/// A line that a client wants in the log. Answered by a LogRecordResponse.
class CONNECTOR_API LogRecord final : public Message
{
public:
    LogRecord(common::LogLevel recordLevel, std::string recordText, std::string recordSource)
        : level(recordLevel), text(std::move(recordText)), source(std::move(recordSource))
    {}
    ~LogRecord() override;

    common::LogLevel level; ///< `off` is not written
    std::string text;       ///< UTF-8
    std::string source;     ///< what in the client it comes from; may be empty
};

class CONNECTOR_API LogRecordResponse final : public Message
{
public:
    explicit LogRecordResponse(bool isWritten) : written(isWritten) {}
    ~LogRecordResponse() override;

    bool written; ///< false for one below the level and one too many
};

} // namespace connector::common_services
