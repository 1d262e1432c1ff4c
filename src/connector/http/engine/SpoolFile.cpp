#include "connector/http/engine/SpoolFile.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "connector/common/Log.h"

namespace connector::http::engine {

namespace {

[[noreturn]] void failForSpace(const ServerCore& core, const char* what)
{
    const int code = errno;
    common::log("connector.http", common::LogLevel::error,
                "A request's body in " + core.settings.spoolFolder.string() + what + ": " +
                    std::generic_category().message(code));
    throw HttpFault(507, "There is no room for the request body.");
}

} // namespace

SpoolFile::SpoolFile(std::shared_ptr<ServerCore> core)
    : core_(std::move(core)),
      file_(::open(core_->settings.spoolFolder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR))
{
    if (!file_)
        failForSpace(*core_, " cannot be kept");
}

SpoolFile::~SpoolFile() { core_->spooledBytes -= size_; }

void SpoolFile::append(std::string_view bytes)
{
    size_ += bytes.size();
    if (core_->spooledBytes.fetch_add(bytes.size()) + bytes.size() > core_->settings.maxSpooledBytes)
        throw HttpFault(503, "Too many large requests at a time.");
    while (!bytes.empty()) {
        const auto count = ::write(file_.number(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            failForSpace(*core_, " cannot be written");
        if (count > 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

} // namespace connector::http::engine
