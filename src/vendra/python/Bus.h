#pragma once

#include "vendra/python/Object.h"

namespace vendra::python {

/// Adds the functions of support/bus.py to the module `connector`: the message bus for scripts. With the language's
/// lock; throws ErrorSet.
void addBusFunctions(PyObject* module);

} // namespace vendra::python
