#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>

#include "platform/Export.h"
#include "platform/rqe/RQE.h"

namespace rqe {

/// The process as a session of the host: does it hold an interpreter, and which.
class VENDRA_PLATFORM_API Session
{
public:
    virtual ~Session();
    virtual bool hasEngine() const = 0;
    /// May be empty even when hasEngine() said yes, if the engine went away in between.
    virtual boost::shared_ptr<RQE> engine() const = 0;
};

/// The one session of this process. Threads: any.
class VENDRA_PLATFORM_API ProcessSession
{
public:
    /// Empty when the host set none.
    static boost::shared_ptr<Session> session();
    /// For the host; empty takes the session away.
    static void setSession(boost::shared_ptr<Session> session);
};

/// Access to the engine of this process.
class VENDRA_PLATFORM_API Factory
{
public:
    /// The engine of the process session; empty without one.
    static boost::shared_ptr<RQE> getCurrentLocalRQE();
};

} // namespace rqe
