#pragma once

#include <memory>
#include <optional>

#include "connector/Export.h"
#include "connector/configuration/Configuration.h"
#include "connector/http/HttpMessage.h"
#include "connector/security/AccessKey.h"

namespace connector::security::v1 {

/// What a program may show: the token of this process, or the access key of the file that security.accessKeyFile names.
/// Threads: any.
class CONNECTOR_API Credentials
{
public:
    /// A file that is no good is left out, with an error in the log unless somebody else says it.
    explicit Credentials(const configuration::Configuration& configuration, bool logProblem = true);

    /// Whether the request's Authorization field holds one of them (RFC 6750 §2.1).
    bool areIn(const http::HttpRequest& request) const;

private:
    std::optional<AccessKey> key_;
};

} // namespace connector::security::v1
