#pragma once

#include <memory>

#include <boost/asio/ssl/context.hpp>

#include "connector/http/ServerSettings.h"

namespace connector::http::engine {

/// A server's side of TLS 1.2 and 1.3: authenticated encryption with forward secrecy only. Throws std::runtime_error
/// that names the file when certificate or key cannot be used.
std::unique_ptr<boost::asio::ssl::context> makeTlsContext(const TlsFiles& files);

} // namespace connector::http::engine
