#include "platform/us/Exceptions.h"

namespace us {

// Out of line, so that the type information of the exceptions lives in this library alone.
ServiceException::ServiceException(const std::string& text) : std::runtime_error(text) {}
ServiceException::~ServiceException() = default;

InvalidContextException::InvalidContextException() : std::runtime_error("The bundle context is no longer valid") {}
InvalidContextException::~InvalidContextException() = default;

} // namespace us
