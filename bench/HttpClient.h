#pragma once

#include <cstdint>
#include <string>

/// One kept-alive HTTP/1.1 connection to a port of this machine; blocking, for one thread.
class HttpClient
{
public:
    explicit HttpClient(std::uint16_t port);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// Sends a whole request and reads the whole answer; yields its body. Throws std::runtime_error for a status other
    /// than 200 and 204 and for a closed connection.
    std::string exchange(const std::string& request);

private:
    int socket_;
    std::string received_;
};

/// The bytes of a POST of JSON to a port of this machine.
std::string postRequest(std::uint16_t port, const std::string& path, const std::string& token, const std::string& body);
