#include "platform/us/ServiceEvent.h"

namespace us {

std::ostream& operator<<(std::ostream& out, const ServiceEvent& event)
{
    switch (event.type_) {
    case ServiceEvent::REGISTERED:
        out << "REGISTERED";
        break;
    case ServiceEvent::MODIFIED:
        out << "MODIFIED";
        break;
    case ServiceEvent::UNREGISTERING:
        out << "UNREGISTERING";
        break;
    case ServiceEvent::MODIFIED_ENDMATCH:
        out << "MODIFIED_ENDMATCH";
        break;
    }
    return out << " " << event.reference_;
}

} // namespace us
