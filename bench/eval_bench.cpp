// Sequential requests over one kept-alive connection: `Eval` of 1+1 to a host process, beside a bare echo with the same
// hand-over between threads. Usage: eval_bench VENDRA [ROUNDS]

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/URI.h>

#include "EchoServer.h"
#include "HttpClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kRequestsPerRound = 1'000;
constexpr const char* kEval = R"({"type":"Eval","id":"1","code":"1+1"})";
constexpr const char* kEvalAnswer =
    R"({"hasValue":true,"id":"1","output":"","text":"2","type":"EvalResponse","value":2})";

/// A host with the connector up, ended with this object.
class HostProcess
{
public:
    explicit HostProcess(const char* executable)
    {
        int output[2];
        if (::pipe(output) != 0)
            throw std::runtime_error("pipe");
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(output[1], STDOUT_FILENO);
            ::close(output[0]);
            if (!std::freopen("/dev/null", "r", stdin))
                ::_exit(126);
            ::execl(executable, executable, "--connector", nullptr);
            ::_exit(127);
        }
        ::close(output[1]);
        std::string text;
        char buffer[512];
        while (std::count(text.begin(), text.end(), '\n') < 2) {
            const auto got = ::read(output[0], buffer, sizeof buffer);
            if (got <= 0)
                throw std::runtime_error("the host did not start");
            text.append(buffer, static_cast<std::size_t>(got));
        }
        std::istringstream lines(text);
        std::string path;
        while (std::getline(lines, path) && !path.starts_with("Token file: ")) {
        }
        std::ifstream file(path.substr(12));
        std::stringstream json;
        json << file.rdbuf();
        const auto discovery = Poco::JSON::Parser().parse(json.str()).extract<Poco::JSON::Object::Ptr>();
        token_ = discovery->getValue<std::string>("token");
        port_ = Poco::URI(discovery->getValue<std::string>("url")).getPort();
    }

    ~HostProcess()
    {
        ::kill(child_, SIGTERM);
        ::waitpid(child_, nullptr, 0);
    }

    std::uint16_t port() const { return port_; }
    const std::string& token() const { return token_; }

private:
    pid_t child_ = -1;
    std::uint16_t port_ = 0;
    std::string token_;
};

void measure(HttpClient& client, const std::string& request, int count, std::vector<double>& times)
{
    for (int i = 0; i < count; ++i) {
        const auto begin = Clock::now();
        client.exchange(request);
        times.push_back(Microseconds(Clock::now() - begin).count());
    }
}

double percentile(std::vector<double>& times, double share)
{
    std::sort(times.begin(), times.end());
    return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "usage: eval_bench VENDRA [ROUNDS]\n";
        return 2;
    }
    const int rounds = argc > 2 ? std::stoi(argv[2]) : 10;

    HostProcess host(argv[1]);
    EchoServer echo(kEvalAnswer);
    HttpClient hostClient(host.port());
    HttpClient echoClient(echo.port());
    const auto request = postRequest(host.port(), "/messageservice/container", host.token(), kEval);
    if (hostClient.exchange(request).find(R"("value":2)") == std::string::npos)
        throw std::runtime_error("1+1 was not 2");

    std::vector<double> evalTimes;
    std::vector<double> echoTimes;
    measure(hostClient, request, kRequestsPerRound, evalTimes);
    measure(echoClient, request, kRequestsPerRound, echoTimes);
    evalTimes.clear();
    echoTimes.clear();
    // Turn about, so that whatever else the machine does hits both.
    for (int round = 0; round < rounds; ++round) {
        measure(hostClient, request, kRequestsPerRound, evalTimes);
        measure(echoClient, request, kRequestsPerRound, echoTimes);
    }
    const double eval50 = percentile(evalTimes, 0.5);
    const double echo50 = percentile(echoTimes, 0.5);
    std::printf("%-28s %10s %10s\n", "µs per request", "p50", "p99");
    std::printf("%-28s %10.1f %10.1f\n", "Eval of 1+1", eval50, percentile(evalTimes, 0.99));
    std::printf("%-28s %10.1f %10.1f\n", "echo with a hand-over", echo50, percentile(echoTimes, 0.99));
    std::printf("%-28s %10.2f\n", "ratio of the p50", eval50 / echo50);
}
