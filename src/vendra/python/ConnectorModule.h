#pragma once

namespace vendra::python {

/// Makes `import connector` mean the module of the installation. Before the language is initialised; ErrorSet cannot
/// occur, failures of the import are ImportErrors of the script.
void registerConnectorModule();

} // namespace vendra::python
