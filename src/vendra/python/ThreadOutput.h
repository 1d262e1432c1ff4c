#pragma once

#include "vendra/python/OutputCapture.h"

namespace vendra::python {

/// From then on threads that scripts start print to where the thread that starts them does. ErrorSet on failure.
/// `capture` must outlive the language.
void installThreadOutput(OutputCapture& capture, PyObject* support);

} // namespace vendra::python
