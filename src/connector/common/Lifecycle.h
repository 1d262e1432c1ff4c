#pragma once

#include "connector/Export.h"

namespace connector::common {

/// Something that is started once it is reachable and stopped before it goes. Both are idempotent and may be repeated
/// in turn; they are called by one thread at a time.
class CONNECTOR_API Lifecycle
{
public:
    virtual ~Lifecycle() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
};

} // namespace connector::common
