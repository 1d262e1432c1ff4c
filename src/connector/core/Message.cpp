#include "connector/core/Message.h"

namespace connector {

Message::~Message() = default;

} // namespace connector
