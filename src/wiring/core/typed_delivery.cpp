#include "connector/interpreter/InterpreterServiceProvider.h"
#include "connector/security/NonceServiceProvider.h"

// The module's own instantiations of typed delivery. Compute, login, security and worker follow with their interfaces.
template connector::MessageFuture
connector::ServiceProviderAPI<connector::interpreter::v1::InterpreterServiceProvider>::deliver(
    std::unique_ptr<connector::Message>&&, connector::Address&&, std::shared_ptr<connector::Context>&&);

template connector::MessageFuture connector::ServiceProviderAPI<connector::security::v1::NonceServiceProvider>::deliver(
    std::unique_ptr<connector::Message>&&, connector::Address&&, std::shared_ptr<connector::Context>&&);
