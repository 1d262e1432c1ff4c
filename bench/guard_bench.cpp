// What the guards of a route cost: the same container request with every service of its address, and with none.

#include <benchmark/benchmark.h>

#include "connector/core/ConnectorImpl2.h"
#include "connector/http/AccessToken.h"
#include "connector/http/HttpMessage.h"
#include "wiring/core/Drivers.h"
#include "wiring/core/Slot.h"

namespace {

using connector::Address;
using connector::http::HttpRequest;

std::unique_ptr<HttpRequest> evaluation()
{
    auto request = std::make_unique<HttpRequest>();
    request->method = "POST";
    request->path = request->target = "/messageservice/container";
    request->authority = "127.0.0.1:8080";
    request->peerAddress = "127.0.0.1";
    request->localPort = 8080;
    request->headers.add("Host", request->authority);
    request->headers.add("Content-Type", "application/json");
    request->headers.add("Authorization", "Bearer " + connector::http::AccessToken::ofProcess().text());
    request->body = R"({"type": "Eval", "id": "1", "code": "1+1"})";
    return request;
}

/// Without an interpreter: the answer is a fault, the way to it the same.
void ask(benchmark::State& state, const Address& address)
{
    const auto registry = wiring::slot<connector::ConnectorImpl2>;
    for (auto _ : state) {
        state.PauseTiming();
        auto request = evaluation();
        state.ResumeTiming();
        auto answer = registry->handle(std::move(request), Address(address), registry->newContext()).get();
        if (dynamic_cast<const connector::http::HttpResponse&>(*answer).status != 200)
            state.SkipWithError("refused");
    }
}

void everyGuard(benchmark::State& state) { ask(state, Address{"connector/http/router"}); }
void noGuard(benchmark::State& state)
{
    ask(state, Address{"connector/v1/http", "connector/v1/clientType", "connector/v1/container"});
}

BENCHMARK(everyGuard);
BENCHMARK(noGuard);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    wiring::startServicesManually();
    benchmark::RunSpecifiedBenchmarks();
    wiring::stopServicesManually();
}
