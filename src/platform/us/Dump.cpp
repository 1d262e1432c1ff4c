#include "platform/us/Dump.h"

#include "platform/us/BundleContext.h"
#include "platform/us/detail/TrackerSession.h"

namespace us {

void Dump(std::ostream& out, const Framework& framework) { framework.core().dump(out); }

namespace detail {

namespace {

const char* stateName(Bundle::State state)
{
    switch (state) {
    case Bundle::STATE_UNINSTALLED:
        return "uninstalled";
    case Bundle::STATE_INSTALLED:
        return "installed";
    case Bundle::STATE_RESOLVED:
        return "resolved";
    case Bundle::STATE_STARTING:
        return "starting";
    case Bundle::STATE_STOPPING:
        return "stopping";
    case Bundle::STATE_ACTIVE:
        return "active";
    }
    return "?";
}

std::string label(const BundleRecord& bundle) { return bundle.name + "(" + std::to_string(bundle.id) + ")"; }

std::string serviceLine(const ServiceRecord& record)
{
    std::string line = "  " + std::to_string(record.id);
    for (const std::string& interfaceId : record.interfaces)
        line += " " + interfaceId;
    line += " owner=" + label(record.owner) + " ranking=" + std::to_string(record.ranking) + " users=[";
    return line;
}

} // namespace

void Core::dump(std::ostream& out) const
{
    // Collected under the mutex, printed without: the stream is not ours.
    std::string text;
    std::vector<SessionPtr> trackers;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& bundle : bundles_)
            text += "bundle " + label(*bundle) + " " + stateName(bundle->state) + " " + bundle->location + "\n";
        text += "services: " + std::to_string(services_.size()) + "\n";
        for (const auto& [id, record] : services_) {
            text += serviceLine(*record);
            const char* separator = "";
            for (const auto& [context, count] : record->uses) {
                text += separator + label(context->bundle_) + " x" + std::to_string(count);
                separator = ", ";
            }
            text += record->state == ServiceRecord::State::kUnregistering ? "] unregistering\n" : "]\n";
        }
        trackers = audience_.trackers;
    }
    text += "open trackers: " + std::to_string(trackers.size()) + "\n";
    for (const SessionPtr& session : trackers) {
        const TrackedSet& wanted = session->wanted();
        text += "  " + wanted.interfaceId;
        if (wanted.filter)
            text += " filter=" + wanted.filter->ToString();
        if (wanted.only)
            text += " service=" + std::to_string(wanted.only->id);
        text += " owner=" + label(session->context().bundle_) + " matches=" + std::to_string(session->size()) + "\n";
    }
    out << text;
}

} // namespace detail
} // namespace us
