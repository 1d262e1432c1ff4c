#include "AnyPluginType.h"

// Two libraries are made of this file.

extern "C" __attribute__((visibility("default"))) void makeAny(us::Any& out, int number)
{
    out = us_test::Travelling{number};
}

extern "C" __attribute__((visibility("default"))) int readAny(const us::Any& any)
{
    try {
        return us::any_cast<us_test::Travelling>(any).number;
    } catch (const us::BadAnyCastException&) {
        return -1;
    }
}
