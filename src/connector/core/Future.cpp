#include "connector/core/Future.h"

namespace connector {

FutureCancelled::FutureCancelled() : std::runtime_error("Future has been cancelled.") {}
FutureCancelled::~FutureCancelled() = default;

BrokenPromise::BrokenPromise() : std::runtime_error("The promise was dropped before it was fulfilled.") {}
BrokenPromise::~BrokenPromise() = default;

namespace detail {

void throwInvalidFutureState() { throw std::runtime_error("Invalid Future state reached."); }

void throwFutureTaken()
{
    throw std::runtime_error("Future already returned it's value or has an associated continuation.");
}

} // namespace detail
} // namespace connector
