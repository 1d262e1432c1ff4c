#include "connector/http/engine/RemoteBody.h"

#include <boost/asio/post.hpp>

#include "connector/http/engine/RequestCycle.h"

namespace connector::http::engine {

Future<ReceivedBody> RemoteBody::receive(std::uint64_t maxBytes)
{
    Promise<ReceivedBody> promise;
    auto received = promise.future();
    if (const auto loop = loop_.lock())
        boost::asio::post(loop->context(),
                          [weak = cycle_, number = requestNumber_, maxBytes, promise = std::move(promise)]() mutable {
                              if (const auto cycle = weak.lock())
                                  cycle->receiveBody(number, maxBytes, std::move(promise));
                              else
                                  promise.setException(FutureCancelled());
                          });
    else
        promise.setException(FutureCancelled());
    return received;
}

} // namespace connector::http::engine
