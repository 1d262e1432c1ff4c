#pragma once

#include <pthread.h>

namespace host {

/// The one lock of all builtins. Not recursive: taking it again on the same thread is an error, never a hang.
class ModuleLock
{
public:
    ModuleLock();
    ~ModuleLock();
    ModuleLock(const ModuleLock&) = delete;
    ModuleLock& operator=(const ModuleLock&) = delete;

    /// Both throw std::system_error with the platform's error.
    void lock();
    void unlock();

private:
    pthread_mutex_t mutex_;
};

/// Owns the module's lock for the length of a builtin.
class ModuleLockOwner
{
public:
    ModuleLockOwner();
    /// Releases unless release() did; an error on this way out is dropped in favour of the exception under way.
    ~ModuleLockOwner();
    ModuleLockOwner(const ModuleLockOwner&) = delete;
    ModuleLockOwner& operator=(const ModuleLockOwner&) = delete;

    void release();

private:
    bool owned_ = true;
};

} // namespace host
