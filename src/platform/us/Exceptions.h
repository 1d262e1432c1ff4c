#pragma once

#include <stdexcept>
#include <string>

#include "platform/Export.h"

namespace us {

/// A question about services that has no answer, such as the reference of a tracker that tracks nothing.
class VENDRA_PLATFORM_API ServiceException : public std::runtime_error
{
public:
    explicit ServiceException(const std::string& text);
    ~ServiceException() override;
};

/// Thrown by every call on the context of a bundle that has stopped.
class VENDRA_PLATFORM_API InvalidContextException : public std::runtime_error
{
public:
    InvalidContextException();
    ~InvalidContextException() override;
};

} // namespace us
