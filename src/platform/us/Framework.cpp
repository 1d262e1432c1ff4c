#include "platform/us/Framework.h"

#include <stdexcept>
#include <utility>

#include "platform/us/detail/Core.h"
#include "platform/us/detail/Report.h"

namespace us {

Framework::Framework(Key, std::shared_ptr<detail::Core> core, detail::BundleRecord& record)
    : Bundle(std::move(core), record)
{}

Framework::~Framework()
{
    try {
        core().stop(record());
    } catch (const std::exception& error) {
        detail::report(std::string("A framework was destroyed and could not be stopped: ") + error.what());
    }
}

void Framework::Start() { core().start(record()); }

void Framework::Stop()
{
    const auto kept = core().shared_from_this(); // a listener may drop the last handle to this framework
    kept->stop(record());
}

void Framework::Uninstall() { throw std::runtime_error("Cannot uninstall a system bundle."); }

std::shared_ptr<Framework> FrameworkFactory::NewFramework(const std::map<std::string, Any>& configuration) const
{
    const auto core = std::make_shared<detail::Core>(detail::toPropertyMap(configuration));
    auto framework = std::make_shared<Framework>(Framework::Key(), core, core->system());
    core->attach(core->system(), framework);
    return framework;
}

} // namespace us
