#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonSerializerServiceProvider.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::json;

void installJsonServices()
{
    construct<JsonSerializerImpl>();
    construct<JsonSerializerServiceProvider>(slot<JsonSerializerImpl>);
    construct<JsonDeserializerServiceProvider>(slot<JsonSerializerImpl>);

    serve<JsonSerializerServiceProvider>("connector/json/serialize");
    serve<JsonDeserializerServiceProvider>("connector/json/deserialize");
}

} // namespace wiring
