#include "vendra/Child.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vendra_test {
namespace {

constexpr std::chrono::seconds kPatience(30);

struct Pipe
{
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        read = ends[0];
        write = ends[1];
    }
    int read;
    int write;
};

[[noreturn]] void become(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment)
{
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> words;
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    ::execvp(words[0], words.data());
    ::_exit(127);
}

} // namespace

Child::Child(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment, At at)
{
    if (at == At::terminal) {
        winsize size = {24, 80, 0, 0};
        pid_ = ::forkpty(&outputEnd_, nullptr, nullptr, &size);
        if (pid_ == 0)
            become(arguments, environment);
        ::fcntl(outputEnd_, F_SETFD, FD_CLOEXEC);
        input_ = ::fcntl(outputEnd_, F_DUPFD_CLOEXEC, 0);
        return;
    }
    Pipe in;
    Pipe out;
    Pipe err;
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(in.read, 0);
        ::dup2(out.write, 1);
        ::dup2(err.write, 2);
        become(arguments, environment);
    }
    for (int end : {in.read, out.write, err.write})
        ::close(end);
    input_ = in.write;
    outputEnd_ = out.read;
    errorEnd_ = err.read;
}

Child::~Child()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    for (int end : {input_, outputEnd_, errorEnd_})
        if (end >= 0)
            ::close(end);
}

void Child::write(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t put = ::write(input_, text.data() + done, text.size() - done);
        if (put < 0)
            throw std::runtime_error("the child does not read");
        done += static_cast<std::size_t>(put);
    }
}

void Child::closeInput()
{
    ::close(input_);
    input_ = -1;
}

void Child::signal(int number) const { ::kill(pid_, number); }

bool Child::readSome(std::chrono::steady_clock::time_point end)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0 || (outputEnd_ < 0 && errorEnd_ < 0))
        return false;
    std::array<pollfd, 2> waited = {{{outputEnd_, POLLIN, 0}, {errorEnd_, POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), static_cast<int>(left)) <= 0)
        return true;
    std::array<char, 65536> bytes;
    auto take = [&](const pollfd& stream, int& descriptor, std::string& text) {
        if (stream.revents == 0)
            return;
        ssize_t got = ::read(descriptor, bytes.data(), bytes.size());
        if (got > 0) {
            text.append(bytes.data(), static_cast<std::size_t>(got));
            return;
        }
        ::close(descriptor); // a terminal answers with an error once the child is gone
        descriptor = -1;
    };
    take(waited[0], outputEnd_, output_);
    take(waited[1], errorEnd_, errors_);
    return true;
}

bool Child::expect(const std::string& text)
{
    auto end = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        std::size_t found = output_.find(text, seen_);
        if (found != std::string::npos) {
            seen_ = found + text.size();
            return true;
        }
        if (!readSome(end))
            return false;
    }
}

int Child::wait()
{
    auto end = std::chrono::steady_clock::now() + kPatience;
    while (readSome(end)) {
    }
    bool late = outputEnd_ >= 0 || errorEnd_ >= 0;
    if (late)
        ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    if (late)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace vendra_test
