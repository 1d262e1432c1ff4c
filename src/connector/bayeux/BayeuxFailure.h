#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace connector::bayeux {

/// What a failed request of the bus is to its client.
struct BayeuxFailure
{
    explicit BayeuxFailure(const std::exception_ptr& failure);

    unsigned status;  ///< HTTP's: that of an HttpFault, 503 while nobody serves, 500 for a fault of our own
    std::string text; ///< for the client; what went wrong inside stays in the log
};

/// A reply to each message of the request `body` that says it failed ("successful":false, "500::…"), as a JSON array;
/// connects and handshakes are advised to try again in a second. "" when `body` has no messages that could be answered.
std::string failureReplies(std::string_view body);

} // namespace connector::bayeux
