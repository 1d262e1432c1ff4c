#include "connector/common_services/LogRecord.h"

namespace connector::common_services {

LogRecord::~LogRecord() = default;
LogRecordResponse::~LogRecordResponse() = default;

} // namespace connector::common_services
