#include "host/ModuleLock.h"

#include <system_error>

namespace host {
namespace {

// Made when the library is loaded, before any builtin can run.
ModuleLock moduleLock;

void check(int error, const char* what)
{
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

} // namespace

ModuleLock::ModuleLock()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

ModuleLock::~ModuleLock() { pthread_mutex_destroy(&mutex_); }

void ModuleLock::lock() { check(pthread_mutex_lock(&mutex_), "The connector's lock cannot be taken"); }

void ModuleLock::unlock() { check(pthread_mutex_unlock(&mutex_), "The connector's lock cannot be released"); }

ModuleLockOwner::ModuleLockOwner() { moduleLock.lock(); }

ModuleLockOwner::~ModuleLockOwner()
{
    if (!owned_)
        return;
    try {
        moduleLock.unlock();
    } catch (const std::system_error&) {
    }
}

void ModuleLockOwner::release()
{
    owned_ = false;
    moduleLock.unlock();
}

} // namespace host
