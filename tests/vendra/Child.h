#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vendra_test {

/// The host as a child process, at pipes or at a terminal of its own.
class Child
{
public:
    enum class At
    {
        pipes,
        terminal ///< standard error and output arrive as one
    };

    Child(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment,
          At at = At::pipes);
    /// Kills what still runs.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void write(const std::string& text);
    void closeInput();
    void signal(int number) const;
    /// Reads until the output since the last call holds `text`, at most half a minute; false when it does not.
    bool expect(const std::string& text);
    /// Reads to the end and waits: the exit status, -signal when a signal ended the child, -1000 when it had to be
    /// killed for lasting longer than half a minute.
    int wait();

    pid_t pid() const noexcept { return pid_; }
    const std::string& output() const noexcept { return output_; }
    const std::string& errors() const noexcept { return errors_; }

private:
    /// False at the end of both streams or when the time is up.
    bool readSome(std::chrono::steady_clock::time_point end);

    pid_t pid_ = -1;
    int input_ = -1;
    int outputEnd_ = -1;
    int errorEnd_ = -1;
    std::string output_;
    std::string errors_;
    std::size_t seen_ = 0;
};

} // namespace vendra_test
