#pragma once

#include "connector/core/CancellationToken.h"
#include "connector/core/ServiceProvider.h"

namespace connector::bayeux {

/// `answer`, given up as soon as the token fires. The engine cancels a request's future itself when the connection
/// breaks; a client that goes in order only closes its side of it, on which the token fires and nothing else happens.
MessageFuture whileThere(MessageFuture answer, CancellationToken& token);

} // namespace connector::bayeux
