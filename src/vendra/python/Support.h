#pragma once

namespace vendra::python {

/// The text of support.py, part of the executable.
extern const char* const kSupportSource;

} // namespace vendra::python
