#include "host/builtins.h"

#include <string>

#include "connector/common/Log.h"
#include "host/Conversion.h"
#include "host/ModuleLock.h"
#include "lifecycle/Framework.h"

namespace host {
namespace {

/// Does `work` under the module lock. An exception releases the lock on its way to the host; an error of the release
/// itself comes after the work is done.
template <class Work>
void underLock(Work work)
{
    ModuleLockOwner owner;
    work();
    owner.release();
}

template <class Work>
void withFramework(Work work)
{
    underLock([&] {
        lifecycle::ensureStarted();
        work();
    });
}

/// A builtin for one bundle or service of the container. The argument is read although this build has no container: a
/// wrong one is reported all the same.
void onNamed(const vxArray* argument)
{
    withFramework([&] {
        readName(argument);
        lifecycle::requireContainer();
    });
}

void onContainer() { withFramework(lifecycle::requireContainer); }

} // namespace

void start(int, vxArray*[], int, const vxArray*[])
{
    withFramework([] {});
}

void stop(int, vxArray*[], int, const vxArray*[]) { underLock(lifecycle::stop); }

void startBundle(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void startAllBundles(int, vxArray*[], int, const vxArray*[])
{
    withFramework([] {});
}

void stopBundle(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void stopAllBundles(int, vxArray*[], int, const vxArray*[]) { underLock(lifecycle::stop); }

void loadService(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void loadAllServices(int, vxArray*[], int, const vxArray*[])
{
    withFramework([] {});
}

void unloadService(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void unloadAllServices(int, vxArray*[], int, const vxArray*[]) { underLock(lifecycle::stop); }

void reload(int, vxArray*[], int, const vxArray*[]) { onContainer(); }

void restartBundle(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void listAllBundleNames(int, vxArray*[], int, const vxArray*[]) { onContainer(); }

void listAllServiceNames(int, vxArray*[], int, const vxArray*[]) { onContainer(); }

void printAllBundles(int, vxArray*[], int, const vxArray*[]) { onContainer(); }

void printBundleProperties(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void printBundleServices(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

void printAllServices(int, vxArray*[], int, const vxArray*[]) { onContainer(); }

void printServiceProperties(int, vxArray*[], int, const vxArray* arguments[]) { onNamed(arguments[0]); }

// Commands are reached through the container's administration tracker, which this build never has: the answer is empty.
void executeCommand(int, vxArray* results[], int, const vxArray* arguments[])
{
    withFramework([&] {
        readString(arguments[0]);
        readStringList(arguments[1]);
        results[0] = toHost(std::string());
    });
}

void listCommands(int, vxArray* results[], int, const vxArray*[])
{
    withFramework([&] { results[0] = toHost(std::string()); });
}

void setLogDestination(int, vxArray*[], int, const vxArray* arguments[])
{
    underLock([&] { connector::common::setLogDestination(readString(arguments[0])); });
}

void setLogSpecification(int, vxArray*[], int, const vxArray* arguments[])
{
    underLock([&] { connector::common::setLogSpecification(readString(arguments[0])); });
}

} // namespace host
