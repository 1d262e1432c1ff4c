#include "connector/common/LogTarget.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace connector::common {

namespace {

constexpr std::uint64_t kRotationSize = 10u << 20;
constexpr int kFilesKept = 5;

class StreamTarget final : public LogTarget
{
public:
    explicit StreamTarget(std::ostream& stream) : stream_(stream) {}

    void write(std::string_view line) noexcept override
    {
        // Streams throw only when somebody asked them to; there is no better place to say so.
        try {
            stream_ << line << std::flush;
        } catch (const std::exception&) {
            stream_.exceptions(std::ios::goodbit);
        }
    }

private:
    std::ostream& stream_;
};

class FileTarget final : public LogTarget
{
public:
    explicit FileTarget(const std::filesystem::path& path) : path_(path) { open(); }
    ~FileTarget() override { close(); }
    FileTarget(const FileTarget&) = delete;
    FileTarget& operator=(const FileTarget&) = delete;

    void write(std::string_view line) noexcept override
    {
        try {
            if (descriptor_ < 0)
                open();
            if (rotates_ && size_ > 0 && size_ + line.size() > kRotationSize)
                rotate();
            append(line);
            complained_ = false;
        } catch (const std::exception& error) {
            if (!std::exchange(complained_, true))
                std::cerr << "The connector's log loses lines: " << error.what() << std::endl;
        }
    }

private:
    [[noreturn]] void fail(const char* what) const
    {
        throw std::system_error(errno, std::generic_category(),
                                std::string(what) + " the log file \"" + path_.string() + "\"");
    }

    void open()
    {
        // Not blocking: the path may name a pipe that nobody reads.
        descriptor_ = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
        if (descriptor_ < 0)
            fail("Cannot open");
        struct stat status = {};
        if (::fstat(descriptor_, &status) != 0)
            fail("Cannot examine");
        rotates_ = S_ISREG(status.st_mode);
        size_ = static_cast<std::uint64_t>(status.st_size);
    }

    void close() noexcept
    {
        if (descriptor_ >= 0)
            ::close(std::exchange(descriptor_, -1));
    }

    std::filesystem::path kept(int number) const { return path_.string() + "." + std::to_string(number); }

    void rotate()
    {
        // Where the folder does not allow it, the file grows on.
        std::error_code ignored;
        for (int number = kFilesKept - 1; number > 0; --number)
            std::filesystem::rename(kept(number), kept(number + 1), ignored);
        std::error_code failed;
        std::filesystem::rename(path_, kept(1), failed);
        rotates_ = !failed;
        if (failed)
            throw std::system_error(failed, "Cannot rotate the log file \"" + path_.string() + "\"");
        close();
        open();
    }

    void append(std::string_view line)
    {
        while (!line.empty()) {
            const auto written = ::write(descriptor_, line.data(), line.size());
            if (written < 0 && errno == EINTR)
                continue;
            if (written < 0)
                fail("Cannot write to");
            size_ += static_cast<std::uint64_t>(written);
            line.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    const std::filesystem::path path_;
    int descriptor_ = -1;
    std::uint64_t size_ = 0;
    bool rotates_ = true;
    bool complained_ = false;
};

} // namespace

std::unique_ptr<LogTarget> makeLogTarget(const std::string& destination)
{
    if (destination.empty() || destination == "stderr")
        return std::make_unique<StreamTarget>(std::clog);
    if (destination == "stdout")
        return std::make_unique<StreamTarget>(std::cout);
    if (destination == "none")
        return nullptr;
    constexpr std::string_view kFile = "file:";
    if (destination.starts_with(kFile) && destination.size() > kFile.size())
        // Scripts change the working directory; the log stays where it began.
        return std::make_unique<FileTarget>(std::filesystem::absolute(destination.substr(kFile.size())));
    throw std::invalid_argument("The log destination \"" + destination +
                                "\" is neither stderr, stdout, none nor file:PATH.");
}

} // namespace connector::common
