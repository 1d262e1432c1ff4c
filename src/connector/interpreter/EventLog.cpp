#include "connector/interpreter/EventLog.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "connector/common/Log.h"

namespace connector::interpreter::v1 {
namespace {

/// Disk space of dropped texts is given back in steps of this size, a multiple of every file system's blocks.
constexpr std::uint64_t kPunchBytes = 1u << 20;

} // namespace

void EventLog::append(std::string text)
{
    bytes_ += text.size() + kOverhead;
    memoryBytes_ += text.size();
    const auto length = static_cast<std::uint32_t>(text.size());
    entries_.push_back({std::move(text), 0, length});
    keepInMemory(kMemoryBytes);
}

void EventLog::keepInMemory(std::size_t bytes)
{
    while (memoryBytes_ > bytes && inFile_ + 1 < entries_.size() && !noFile_)
        spill();
}

std::string EventLog::read(std::uint64_t number) const
{
    const Entry& entry = entries_.at(static_cast<std::size_t>(number - first_));
    if (!entry.text.empty())
        return entry.text;
    std::string text(entry.length, '\0');
    const auto count = ::pread(file_.number(), text.data(), text.size(), static_cast<off_t>(entry.offset));
    if (count != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("An event cannot be read back: " +
                                 std::generic_category().message(count < 0 ? errno : EIO));
    return text;
}

void EventLog::dropFirst()
{
    const Entry& gone = entries_.front();
    bytes_ -= gone.length + kOverhead;
    if (inFile_ > 0) {
        --inFile_;
        const auto end = (gone.offset + gone.length) / kPunchBytes * kPunchBytes;
        if (end > punched_) {
            // Where the file system cannot do it the space stays taken until the file goes.
            [[maybe_unused]] const int failed =
                ::fallocate(file_.number(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(punched_),
                            static_cast<off_t>(end - punched_));
            punched_ = end;
        }
    } else {
        memoryBytes_ -= gone.length;
    }
    entries_.pop_front();
    ++first_;
}

bool EventLog::openFile()
{
    if (!file_) {
        std::error_code none;
        const auto folder = std::filesystem::temp_directory_path(none);
        file_ = common::FileDescriptor(
            ::open(none ? "/tmp" : folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, S_IRUSR | S_IWUSR));
    }
    return static_cast<bool>(file_);
}

/// Moves the oldest text that is in memory to the file.
void EventLog::spill()
{
    Entry& entry = entries_[inFile_];
    const bool written = openFile() && ::pwrite(file_.number(), entry.text.data(), entry.text.size(),
                                                static_cast<off_t>(fileEnd_)) == static_cast<ssize_t>(entry.length);
    if (!written) {
        noFile_ = true;
        common::log("connector.interpreter", common::LogLevel::warning,
                    "Output is kept in memory, since it cannot be kept in a file: " +
                        std::generic_category().message(errno));
        return;
    }
    entry.offset = fileEnd_;
    fileEnd_ += entry.length;
    memoryBytes_ -= entry.length;
    std::string().swap(entry.text); // an assignment would keep its memory
    ++inFile_;
}

} // namespace connector::interpreter::v1
