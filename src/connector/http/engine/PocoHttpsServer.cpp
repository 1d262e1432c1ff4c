#include "connector/http/PocoHttpsServer.h"

#include <stdexcept>
#include <vector>

#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SSLManager.h>
#include <boost/asio/post.hpp>

#include "connector/common/MemoryKeeper.h"
#include "connector/common/Thread.h"
#include "connector/http/engine/Acceptor.h"
#include "connector/http/engine/Loop.h"

namespace connector::http {

namespace asio = boost::asio;

namespace {

/// Initialised from the first start until this library goes.
struct NetworkLibraries
{
    NetworkLibraries()
    {
        Poco::Net::initializeNetwork();
        Poco::Net::initializeSSL();
    }
    ~NetworkLibraries()
    {
        Poco::Net::uninitializeSSL();
        Poco::Net::uninitializeNetwork();
    }
};

} // namespace

/// One time of being open.
struct PocoHttpsServer::Run
{
    std::shared_ptr<engine::ServerCore> core;
    std::vector<std::shared_ptr<engine::Loop>> loops;
    std::vector<std::shared_ptr<engine::Acceptor>> acceptors;
    std::vector<std::thread> threads;
    std::uint16_t port = 0;
    common::MemoryKeeper memory;

    void stop()
    {
        for (auto& acceptor : acceptors)
            asio::post(loops.front()->context(), [closing = std::move(acceptor)] { closing->stop(); });
        acceptors.clear();
        for (const auto& loop : loops)
            asio::post(loop->context(), [weak = std::weak_ptr(loop)] {
                if (const auto alive = weak.lock())
                    alive->stop();
            });
        for (auto& thread : threads)
            common::joinThread(std::move(thread));
        threads.clear();
    }
};

void PocoHttpsServer::initializeConnectorSSL() { static const NetworkLibraries initialized; }

PocoHttpsServer::PocoHttpsServer(ServerSettings settings, Handler handler)
    : settings_(std::move(settings)), handler_(std::move(handler))
{}

PocoHttpsServer::~PocoHttpsServer() { close(); }

void PocoHttpsServer::open()
{
    std::lock_guard lock(mutex_);
    if (run_)
        throw std::logic_error("The server is open already, on port " + std::to_string(run_->port));

    auto run = std::make_shared<Run>();
    run->core = std::make_shared<engine::ServerCore>(settings_, handler_);
    const int threads = std::max(1, settings_.parameters->getMaxThreads());
    for (int i = 0; i < threads; ++i)
        run->loops.push_back(std::make_shared<engine::Loop>(run->core));
    run->acceptors = engine::listenAsSet(run->loops, run->port);
    try {
        for (const auto& loop : run->loops)
            run->threads.push_back(common::startThread("http-io", [loop] { loop->run(); }));
    } catch (...) {
        run->acceptors.clear();
        run->stop();
        throw;
    }
    for (const auto& acceptor : run->acceptors)
        asio::post(run->loops.front()->context(), [acceptor] { acceptor->start(); });
    run_ = std::move(run);
}

std::uint16_t PocoHttpsServer::port() const
{
    std::lock_guard lock(mutex_);
    return run_ ? run_->port : 0;
}

void PocoHttpsServer::close()
{
    std::shared_ptr<Run> run;
    {
        std::lock_guard lock(mutex_);
        run.swap(run_);
    }
    if (run)
        run->stop();
}

ServerCounters PocoHttpsServer::counters() const
{
    std::lock_guard lock(mutex_);
    ServerCounters counters;
    if (run_) {
        const engine::ServerCore& core = *run_->core;
        counters.connections = core.connections;
        counters.accepted = core.accepted;
        counters.turnedAway = core.turnedAway;
        counters.requests = core.requests;
        counters.requestsInFlight = core.requestsInFlight;
        counters.refusedRequests = core.refusedRequests;
        counters.failedRequests = core.failedRequests;
    }
    return counters;
}

} // namespace connector::http
