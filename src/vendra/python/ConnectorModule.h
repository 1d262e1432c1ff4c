#pragma once

namespace vendra::python {

/// Makes `import connector` mean the module of the installation. Before the language is initialised; ErrorSet cannot
/// occur, failures of the import are ImportErrors of the script.
void registerConnectorModule();

/// From here on builtins raise RuntimeError "The host is going down.", but for `stop`, which does nothing. Waits for
/// those that other threads are in. Without the language's lock.
void closeConnectorModule();

} // namespace vendra::python
