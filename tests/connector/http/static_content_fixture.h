#pragma once

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "connector/configuration/ConfigurationImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/http/StaticContentServiceImpl.h"
#include "connector/http/StaticContentServiceProvider.h"

namespace connector::http::test {

namespace fs = std::filesystem;
using Fields = std::vector<std::pair<std::string, std::string>>;

class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string name = fs::temp_directory_path() / "content-test-XXXXXX";
        path = ::mkdtemp(name.data());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() { fs::remove_all(path); }

    fs::path path;
};

inline void write(const fs::path& path, const std::string& text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

/// Seconds since 1970.
inline void setTime(const fs::path& path, std::time_t seconds)
{
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

/// The bytes a client would get.
inline std::string bodyOf(const HttpResponse& response)
{
    std::string text = response.body;
    for (const auto& part : response.parts) {
        std::string bytes = part.text;
        if (part.file) {
            bytes.resize(part.length);
            EXPECT_EQ(::pread(part.file->number(), bytes.data(), bytes.size(), static_cast<off_t>(part.offset)),
                      static_cast<ssize_t>(part.length));
        }
        text += bytes;
    }
    EXPECT_EQ(text.size(), response.contentLength());
    return text;
}

/// A service with the folder `root` for every path, and one of user files, behind its provider "content".
class StaticContent : public testing::Test
{
protected:
    StaticContent()
    {
        fs::create_directories(root);
        write(top.path / "secret.txt", "secret");
        service = std::make_shared<StaticContentServiceImpl>(
            configuration,
            StaticContentServiceImpl::Roots{
                {"", root.wstring()}, {"/user", (top.path / "user").wstring()}, {"/vendra/toolbox", root.wstring()}},
            StaticContentServiceImpl::Flags{{"/user", true}}, false);
        connector->addServiceProvider("content", std::make_shared<StaticContentServiceProvider>(service));
    }

    std::unique_ptr<HttpResponse> send(const std::string& method, const std::string& path, const Fields& fields = {},
                                       Address address = Address{"content"})
    {
        auto request = std::make_unique<HttpRequest>();
        request->method = method;
        request->target = path;
        request->path = path.substr(0, path.find('?'));
        request->query = path.find('?') == std::string::npos ? "" : path.substr(path.find('?') + 1);
        for (const auto& [name, value] : fields)
            request->headers.add(name, value);
        auto answer = connector->handle(std::move(request), std::move(address), connector->newContext()).get();
        return std::unique_ptr<HttpResponse>(&dynamic_cast<HttpResponse&>(*answer.release()));
    }

    std::unique_ptr<HttpResponse> get(const std::string& path, const Fields& fields = {})
    {
        return send("GET", path, fields);
    }

    /// The body, or the status of an answer without a file.
    std::string textOf(const std::string& path, const Fields& fields = {})
    {
        const auto response = get(path, fields);
        return response->status == 200 ? bodyOf(*response) : std::to_string(response->status);
    }

    TemporaryFolder top;
    const fs::path root = top.path / "root";
    std::shared_ptr<configuration::Configuration> configuration = std::make_shared<configuration::ConfigurationImpl>();
    std::shared_ptr<StaticContentService> service;
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
};

} // namespace connector::http::test
