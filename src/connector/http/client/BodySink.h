#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

#include "connector/http/HttpClientMessages.h"

namespace connector::http::client {

/// Where the body of an answer goes. Failures: std::runtime_error. One that dies unfinished leaves nothing behind.
class BodySink
{
public:
    virtual ~BodySink() = default;
    virtual void write(std::string_view bytes) = 0;
    /// Hands the body to the answer.
    virtual void finish(HttpClientResponse& response) = 0;

    static std::unique_ptr<BodySink> inMemory();
    /// Writes to a file beside `file`, which replaces it in the end.
    static std::unique_ptr<BodySink> inFile(const std::filesystem::path& file);
};

} // namespace connector::http::client
