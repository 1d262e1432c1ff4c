#pragma once

#include <string>

#include "platform/us/detail/AnyText.h"

/// The id under which services of interface T are found; the readable type name unless declared otherwise.
template <class T>
std::string us_service_interface_iid()
{
    return us::detail::typeName(typeid(T));
}

/// Gives an interface its id, at global scope, after the class and before the first use. Libraries agree on an
/// interface by this text alone: put the version into it ("connector.Connector/1.0") and raise it whenever the class's
/// layout changes.
#define US_DECLARE_SERVICE_INTERFACE(Type, Id)                                                                         \
    template <>                                                                                                        \
    inline std::string us_service_interface_iid<Type>()                                                                \
    {                                                                                                                  \
        static_assert(sizeof(Id) > 1, "a service interface needs an id");                                              \
        return Id;                                                                                                     \
    }
