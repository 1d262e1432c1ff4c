#pragma once

#include "platform/matrix/vxarray.h"

/// The 23 builtins in the order of the exported table. Exceptions reach the host. They run one at a time, under the
/// module lock; all but stop, stopAllBundles, unloadAllServices and the two log setters start the framework first.
namespace host {

/// The host's calling convention: what a builtin answers goes into results[0]; the counts are not looked at.
using Gateway = void(int resultCount, vxArray* results[], int argumentCount, const vxArray* arguments[]);

Gateway start;
Gateway stop;
Gateway startBundle;
Gateway startAllBundles;
Gateway stopBundle;
Gateway stopAllBundles;
Gateway loadService;
Gateway loadAllServices;
Gateway unloadService;
Gateway unloadAllServices;
Gateway reload;
Gateway restartBundle;
Gateway listAllBundleNames;
Gateway listAllServiceNames;
Gateway printAllBundles;
Gateway printBundleProperties;
Gateway printBundleServices;
Gateway printAllServices;
Gateway printServiceProperties;
Gateway executeCommand;
Gateway listCommands;
Gateway setLogDestination;
Gateway setLogSpecification;

} // namespace host
