#pragma once

#include "platform/us/Any.h"

namespace us_test {

/// Known to two libraries that do not know each other.
struct __attribute__((visibility("default"))) Travelling
{
    int number = 0;
    bool operator==(const Travelling&) const = default;
};

using MakeAny = void (*)(us::Any& out, int number);
using ReadAny = int (*)(const us::Any& any); ///< -1: not a Travelling

} // namespace us_test
