#pragma once

#include "lifecycle/Framework.h"
#include "platform/shutdown/ShutdownObject.h"

namespace lifecycle {

/// Stops the framework when the host goes down. Takes no lock: no builtin runs then.
class MicroServicesShutdown final : public ShutdownObject
{
public:
    using ShutdownObject::ShutdownObject;

    void shutdown() override { stop(); }
};

} // namespace lifecycle
