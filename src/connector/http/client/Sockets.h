#pragma once

#include <string>

#include <Poco/Net/SecureStreamSocketImpl.h>
#include <Poco/Net/StreamSocketImpl.h>

#include "connector/http/client/Url.h"
#include "connector/http/client/Waiter.h"

namespace connector::http::client {

/// A connected non-blocking socket that looks like a blocking one, waiting by means of a Waiter. Sends all or throws.
class PlainSocket final : public Poco::Net::StreamSocketImpl
{
public:
    /// Takes `descriptor`; `peer` is for error texts.
    PlainSocket(int descriptor, Waiter& waiter, std::string peer);

    using Poco::Net::StreamSocketImpl::receiveBytes;
    using Poco::Net::StreamSocketImpl::sendBytes;
    int sendBytes(const void* buffer, int length, int flags = 0) override;
    int receiveBytes(void* buffer, int length, int flags = 0) override;

protected:
    ~PlainSocket() override;

private:
    Waiter& waiter_;
    const std::string peer_;
};

/// The same over TLS.
class TlsSocket final : public Poco::Net::SecureStreamSocketImpl
{
public:
    TlsSocket(PlainSocket* socket, Poco::Net::Context::Ptr context, Waiter& waiter, const Url& url);

    /// Does the handshake and checks the certificate. Throws std::runtime_error.
    void shakeHands();

    using Poco::Net::SecureStreamSocketImpl::receiveBytes;
    using Poco::Net::SecureStreamSocketImpl::sendBytes;
    int sendBytes(const void* buffer, int length, int flags = 0) override;
    int receiveBytes(void* buffer, int length, int flags = 0) override;

protected:
    ~TlsSocket() override;

private:
    template <class Step>
    int repeat(Step step);

    Waiter& waiter_;
    const Url url_;
};

} // namespace connector::http::client
