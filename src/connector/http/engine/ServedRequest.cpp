#include "connector/http/engine/ServedRequest.h"

#include <boost/asio/post.hpp>

#include "connector/common/Log.h"
#include "connector/http/engine/RequestCycle.h"

namespace connector::http::engine {

ServedRequest::ServedRequest(RequestCycle& asker, Stream& stream, Loop& loop)
    : asker_(asker), stream_(stream), loop_(loop), core_(loop.core())
{}

std::unique_ptr<HttpResponse> ServedRequest::begin(std::unique_ptr<HttpRequest> request, std::uint64_t number,
                                                   const ResponseTerms& terms, const std::shared_ptr<BodyHold>& hold)
{
    RequestTrace trace{request->method + " " + request->path, prefersJson(request->headers)};
    const bool whole = request->pendingBody == nullptr;
    inFlight_ = true;
    ++core_.requests;
    ++core_.requestsInFlight;
    std::unique_ptr<HttpResponse> response;
    try {
        PocoHttpsServer::Exchange exchange = core_.handler(std::move(request));
        if (exchange.answer.isReady()) {
            response = takeResponse(exchange.answer, trace, core_);
        } else {
            cancellation_ = std::move(exchange.cancellation);
            if (!stream_.isTls())
                direct_ = std::make_shared<DirectAnswer>(stream_.socket().native_handle(), terms);
            // Whether an answer is the last one depends on how much of the body came.
            if (whole)
                allowDirect();
            pending_ = exchange.answer.then(bringLater(trace, number, hold));
        }
    } catch (...) {
        response = failureResponse(std::current_exception(), trace, core_);
    }
    if (response)
        end();
    return response;
}

/// Writes the answer, or its beginning, and brings it to the connection's thread. A late one finds neither the
/// connection nor its loop when the server was closed meanwhile.
std::function<bool(MessageFuture)> ServedRequest::bringLater(const RequestTrace& trace, std::uint64_t number,
                                                             const std::shared_ptr<BodyHold>& hold)
{
    return [weak = std::weak_ptr(asker_.self()), weakLoop = loop_.weak_from_this(), direct = direct_, hold, number,
            trace](MessageFuture settled) {
        const auto loop = weakLoop.lock();
        if (!loop)
            return false;
        auto response = takeResponse(settled, trace, loop->core());
        if (hold)
            hold->release();
        auto sent = direct ? direct->send(*response) : DirectAnswer::Sent();
        boost::asio::post(loop->context(),
                          [weak, number, response = std::move(response), sent = std::move(sent)]() mutable {
                              if (const auto asker = weak.lock())
                                  asker->receiveAnswer(number, std::move(response), std::move(sent));
                          });
        return true;
    };
}

void ServedRequest::end()
{
    inFlight_ = false;
    --core_.requestsInFlight;
    cancellation_.reset();
    pending_ = {};
    direct_.reset();
}

void ServedRequest::abandon()
{
    if (!inFlight_)
        return;
    inFlight_ = false;
    --core_.requestsInFlight;
    direct_.reset();
    const auto token = std::move(cancellation_);
    auto pending = std::move(pending_);
    try {
        if (token)
            token->cancel();
        pending.cancel();
    } catch (const std::exception& error) {
        common::log("connector.http", common::LogLevel::error,
                    std::string("Cancelling a request failed: ") + error.what());
    }
}

void ServedRequest::tellClientGoes()
{
    if (cancellation_)
        cancellation_->cancel();
}

} // namespace connector::http::engine
