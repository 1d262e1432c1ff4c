#include "connector/http/client/BodySink.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "connector/common/FileDescriptor.h"

namespace connector::http::client {

namespace {

namespace fs = std::filesystem;

class MemorySink final : public BodySink
{
public:
    void write(std::string_view bytes) override { body_.append(bytes); }

    void finish(HttpClientResponse& response) override
    {
        response.bytes = body_.size();
        response.body = std::move(body_);
    }

private:
    std::string body_;
};

class FileSink final : public BodySink
{
public:
    explicit FileSink(const fs::path& file)
        : file_(file), temporary_((file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string())
    {
        if (!fs::is_directory(file_.parent_path()))
            throw std::runtime_error("Cannot write " + file_.string() + ": there is no folder " +
                                     file_.parent_path().string());
        if (fs::is_directory(file_))
            throw std::runtime_error("Cannot write " + file_.string() + ": it is a folder");
        // Made with access for the user alone.
        output_ = common::FileDescriptor(::mkostemp(temporary_.data(), O_CLOEXEC));
        if (!output_)
            fail();
    }

    ~FileSink() override
    {
        if (output_)
            ::unlink(temporary_.c_str());
    }

    void write(std::string_view bytes) override
    {
        bytes_ += bytes.size();
        while (!bytes.empty()) {
            const auto count = ::write(output_.number(), bytes.data(), bytes.size());
            if (count >= 0)
                bytes.remove_prefix(static_cast<std::size_t>(count));
            else if (errno != EINTR)
                fail();
        }
    }

    void finish(HttpClientResponse& response) override
    {
        if (std::rename(temporary_.c_str(), file_.c_str()) != 0)
            fail();
        output_ = common::FileDescriptor(); // nothing to remove any more
        response.file = file_;
        response.bytes = bytes_;
    }

private:
    [[noreturn]] void fail() const
    {
        throw std::runtime_error("Cannot write " + file_.string() + ": " + std::generic_category().message(errno));
    }

    const fs::path file_;
    std::string temporary_;
    common::FileDescriptor output_;
    std::uint64_t bytes_ = 0;
};

} // namespace

std::unique_ptr<BodySink> BodySink::inMemory() { return std::make_unique<MemorySink>(); }

std::unique_ptr<BodySink> BodySink::inFile(const fs::path& file) { return std::make_unique<FileSink>(file); }

} // namespace connector::http::client
