#include "connector/interpreter/InterpreterServiceProvider.h"

// The module's own instantiations of typed delivery. Compute, login, nonce, security and worker follow with their
// interfaces.
template connector::MessageFuture
connector::ServiceProviderAPI<connector::interpreter::v1::InterpreterServiceProvider>::deliver(
    std::unique_ptr<connector::Message>&&, connector::Address&&, std::shared_ptr<connector::Context>&&);
