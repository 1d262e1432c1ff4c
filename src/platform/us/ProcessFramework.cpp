#include "platform/us/ProcessFramework.h"

#include <mutex>
#include <utility>

namespace foundation::cppmicroservices {

namespace {

struct Process
{
    std::mutex mutex;
    bool decided = false; ///< made or set
    std::shared_ptr<us::Framework> framework;
};

Process& process()
{
    static Process instance;
    return instance;
}

} // namespace

std::shared_ptr<us::Framework> getFramework()
{
    Process& present = process();
    const std::lock_guard lock(present.mutex);
    if (!present.decided) {
        auto framework = us::FrameworkFactory().NewFramework(); // nobody else's code runs here
        framework->Start();
        present.framework = std::move(framework);
        present.decided = true;
    }
    return present.framework;
}

void setFramework(std::shared_ptr<us::Framework> framework)
{
    Process& present = process();
    const std::lock_guard lock(present.mutex);
    present.decided = true;
    present.framework.swap(framework); // the old one ends after the mutex is released
}

} // namespace foundation::cppmicroservices
