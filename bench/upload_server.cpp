// The engine alone: takes uploads as a provider would, and says where it listens.

#include <cstdio>
#include <iostream>

#include "connector/core/Connector.h"
#include "connector/http/PocoHttpsServer.h"

namespace {

using namespace connector;
using namespace connector::http;

std::unique_ptr<Message> received(std::uint64_t bytes)
{
    return std::make_unique<HttpResponse>(201, "text/plain", std::to_string(bytes));
}

PocoHttpsServer::Exchange serve(std::unique_ptr<HttpRequest> request)
{
    PocoHttpsServer::Exchange exchange;
    if (request->pendingBody)
        exchange.answer = request->pendingBody->receive(4ull << 30).then([](Future<ReceivedBody> body) {
            return received(body.get().size);
        });
    else
        exchange.answer = makeReadyFuture(received(request->body.size()));
    return exchange;
}

} // namespace

int main()
{
    auto server = std::make_shared<PocoHttpsServer>(ServerSettings(), serve);
    server->open();
    std::cout << server->port() << std::endl;
    std::cin.get(); // until the other side closes
    server->close();
}
