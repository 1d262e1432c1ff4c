#include "vendra/Browser.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vendra {
namespace {

/// A page that leads to the address. It holds nothing but hexadecimal digits and what an address is made of.
std::string leadingPage(const std::string& url)
{
    return "<!doctype html><meta charset=utf-8><meta name=referrer content=no-referrer><title>Vendra</title>\n"
           "<meta http-equiv=refresh content=\"0;url=" +
           url + "\"><a href=\"" + url + "\">Vendra</a>\n";
}

std::filesystem::path writePage(const std::string& url, const std::filesystem::path& folder)
{
    const auto fail = [](const char* what) {
        throw std::runtime_error(std::string(what) + ": " + std::generic_category().message(errno));
    };
    const auto page = folder / "open.html";
    ::unlink(page.c_str());
    const int file = ::open(page.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0)
        fail("the page that leads to the address cannot be made");
    const std::string text = leadingPage(url);
    const auto written = ::write(file, text.data(), text.size());
    if (::close(file) != 0 || written != static_cast<ssize_t>(text.size()))
        fail("the page that leads to the address cannot be written");
    return page;
}

} // namespace

void openInBrowser(const std::string& url, const std::filesystem::path& folder)
{
    const char* chosen = std::getenv("BROWSER");
    std::string program = chosen && *chosen ? chosen : "xdg-open";
    std::string page = "file://" + writePage(url, folder).string();
    // The shell ends at once, and the browser is nobody's child.
    std::string shell = "sh";
    std::string option = "-c";
    std::string script = R"(command -v "$0" >/dev/null || exit 127; "$0" "$1" </dev/null >/dev/null 2>&1 &)";
    char* arguments[] = {shell.data(), option.data(), script.data(), program.data(), page.data(), nullptr};
    pid_t child = 0;
    int status = 0;
    if (const int failure = ::posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ))
        throw std::runtime_error("no browser can be started: " + std::generic_category().message(failure));
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("there is no \"" + program + "\" to open a browser with; set BROWSER");
}

} // namespace vendra
