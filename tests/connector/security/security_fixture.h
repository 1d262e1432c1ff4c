#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "connector/configuration/ConfigurationImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/http/HttpMessage.h"
#include "connector/http/HttpServiceProvider.h"

namespace connector::security::v1::test {

using Fields = std::vector<std::pair<std::string, std::string>>;

/// What lies behind the guard: answers everything with "served".
class Behind final : public http::HttpServiceProvider
{
public:
    unsigned status = 200;
    bool cookieOnly = false; ///< of the last request

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&&,
                             std::shared_ptr<Context>&&) override
    {
        cookieOnly = request->cookieOnly;
        return makeReadyFuture<std::unique_ptr<Message>>(
            std::make_unique<http::HttpResponse>(status, "text/plain", "served"));
    }
};

/// A request to port 8080, as the engine makes it from `target`.
inline std::unique_ptr<http::HttpRequest> request(const std::string& method, const std::string& target,
                                                  const Fields& fields = {})
{
    auto made = std::make_unique<http::HttpRequest>();
    made->method = method;
    made->target = target;
    const auto mark = target.find('?');
    made->path = target.substr(0, mark);
    made->query = mark == std::string::npos ? "" : target.substr(mark + 1);
    made->authority = "localhost:8080";
    made->peerAddress = "127.0.0.1";
    made->localPort = 8080;
    for (const auto& [name, value] : fields)
        made->headers.add(name, value);
    return made;
}

/// A connector, a configuration, and a folder of its own for each test.
class SecurityTest : public testing::Test
{
protected:
    SecurityTest()
    {
        std::string name = std::filesystem::temp_directory_path() / "security-test-XXXXXX";
        folder = ::mkdtemp(name.data());
        connector->addServiceProvider("behind", behind);
        connector->addServiceProvider("connector/http/staticContent", behind);
    }
    ~SecurityTest() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<http::HttpResponse> send(std::unique_ptr<http::HttpRequest> asked, Address address)
    {
        auto answer = connector->handle(std::move(asked), std::move(address), connector->newContext()).get();
        return std::unique_ptr<http::HttpResponse>(&dynamic_cast<http::HttpResponse&>(*answer.release()));
    }

    std::string file(const std::string& name, const std::string& text, ::mode_t mode = 0600)
    {
        const auto path = folder / name;
        std::ofstream(path) << text;
        ::chmod(path.c_str(), mode);
        return path;
    }

    std::filesystem::path folder;
    std::shared_ptr<Behind> behind = std::make_shared<Behind>();
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<configuration::ConfigurationImpl> configuration =
        std::make_shared<configuration::ConfigurationImpl>();
};

} // namespace connector::security::v1::test
