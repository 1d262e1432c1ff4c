#include "connector/http/HttpBody.h"

namespace connector::http {

HttpFault::HttpFault(unsigned status, const std::string& text) : std::runtime_error(text), status_(status) {}

HttpFault::~HttpFault() = default;

} // namespace connector::http
