// One client for three servers: the host, the bare floor beside it, and a notebook server.
//
// Usage: host_driver DIALECT PORT TOKEN KERNEL MEASUREMENT [COUNT]; "-" for no token or kernel
//   sequential  `1+1` again and again over one WebSocket
//   prompt      the same by a client that acknowledges what it gets at once
//   http        the same as HTTP requests without a session, over one connection that is kept alive
//   four        `1+1` of four clients at once, each over a WebSocket of its own
//   short       100,000 lines of up to 6 characters, a few times; long: 100,000 lines of 80
//   completion  what `sys.st` may become
//   interrupt   from the interrupt of an endless loop to the end of the evaluation
//   further     from a new client's connecting to its first value
//   idle        holds COUNT clients, says "ready", and ends with its standard input
// Prints one line "FIGURE VALUE UNIT" for each figure.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <poll.h>

#include "ConsoleClients.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostTimes = 10'000;
constexpr std::chrono::seconds kLongest{3};
constexpr std::size_t kWarmUp = 20;
constexpr std::size_t kFewTimes = 20; ///< of what takes long
constexpr std::size_t kLines = 100'000;
constexpr std::size_t kOutputTimes = 5;
constexpr std::size_t kAtOnce = 4;

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

void print(const char* figure, double value, const char* unit) { std::printf("%s %.1f %s\n", figure, value, unit); }

void printTimes(std::vector<double> seconds)
{
    std::sort(seconds.begin(), seconds.end());
    const auto quantile = [&](double share) {
        return seconds.at(static_cast<std::size_t>(share * static_cast<double>(seconds.size() - 1))) * 1e6;
    };
    print("p50", quantile(0.5), "us");
    print("p99", quantile(0.99), "us");
}

/// Times of a step that is repeated, at most so often and for some seconds; the first ones do not count.
std::vector<double> timesOf(std::size_t most, const std::function<void()>& step)
{
    for (std::size_t i = 0; i < std::min(kWarmUp, most); ++i)
        step();
    std::vector<double> times;
    const auto begin = Clock::now();
    do {
        const auto stepBegin = Clock::now();
        step();
        times.push_back(secondsSince(stepBegin));
    } while (times.size() < most && Clock::now() - begin < kLongest);
    return times;
}

void check(const Evaluation& evaluation)
{
    if (evaluation.value != "2")
        throw std::runtime_error("1+1 was \"" + evaluation.value + "\" " + evaluation.error);
}

void evaluateOnce(ConsoleClient& client)
{
    Evaluation evaluation;
    client.evaluate("1+1");
    client.finish(evaluation);
    check(evaluation);
}

void runToEnd(ConsoleClient& client, const std::string& code)
{
    Evaluation evaluation;
    client.run(code);
    client.finish(evaluation);
    if (!evaluation.error.empty())
        throw std::runtime_error(code + ": " + evaluation.error);
}

void sequential(const Server& server, bool promptly)
{
    const auto client = makeClient(server);
    if (promptly)
        client->acknowledgeAtOnce();
    printTimes(timesOf(kMostTimes, [&] { evaluateOnce(*client); }));
}

void stateless(const Server& server)
{
    const auto request = statelessRequest(server, "1+1");
    if (request.empty())
        return;
    HttpClient client(server.port);
    printTimes(timesOf(kMostTimes, [&] {
        if (const auto answer = client.exchange(request); answer.find('2') == std::string::npos)
            throw std::runtime_error("1+1 was " + answer);
    }));
}

void fourAtOnce(const Server& server)
{
    std::array<std::unique_ptr<ConsoleClient>, kAtOnce> clients;
    std::array<Evaluation, kAtOnce> evaluations;
    std::array<pollfd, kAtOnce> waited{};
    for (std::size_t i = 0; i < kAtOnce; ++i) {
        clients[i] = makeClient(server);
        evaluateOnce(*clients[i]);
        waited[i] = {clients[i]->socket(), POLLIN, 0};
    }
    std::size_t ended = 0;
    const auto begin = Clock::now();
    for (auto& client : clients)
        client->evaluate("1+1");
    while (Clock::now() - begin < kLongest) {
        ::poll(waited.data(), waited.size(), -1);
        for (std::size_t i = 0; i < kAtOnce; ++i) {
            if (waited[i].revents == 0)
                continue;
            clients[i]->read();
            if (!clients[i]->advance(evaluations[i]))
                continue;
            check(evaluations[i]);
            evaluations[i] = {};
            ++ended;
            clients[i]->evaluate("1+1");
        }
    }
    print("rate", static_cast<double>(ended) / secondsSince(begin), "/s");
    for (std::size_t i = 0; i < kAtOnce; ++i)
        clients[i]->finish(evaluations[i]);
}

/// The median of a few times, and what was lost in all of them.
void output(const Server& server, const std::string& printed)
{
    const auto client = makeClient(server);
    evaluateOnce(*client);
    std::vector<double> rates;
    double lost = 0;
    for (std::size_t i = 0; i < kOutputTimes; ++i) {
        Evaluation evaluation;
        const auto begin = Clock::now();
        client->run("for i in range(" + std::to_string(kLines) + "): print(" + printed + ")");
        client->finish(evaluation);
        if (!evaluation.error.empty())
            throw std::runtime_error("the output ended with " + evaluation.error);
        rates.push_back(static_cast<double>(evaluation.lines) / secondsSince(begin));
        lost += static_cast<double>(kLines) - static_cast<double>(evaluation.lines);
    }
    std::sort(rates.begin(), rates.end());
    print("rate", rates[rates.size() / 2], "lines/s");
    print("lost", lost, "lines");
}

void completion(const Server& server)
{
    const auto client = makeClient(server);
    runToEnd(*client, "import sys");
    std::size_t candidates = 0;
    const auto times = timesOf(kMostTimes, [&] { candidates = client->complete("sys.st"); });
    if (candidates < 3) // stdin, stdout, stderr
        throw std::runtime_error("only " + std::to_string(candidates) + " candidates");
    printTimes(times);
}

void interrupt(const Server& server)
{
    const auto client = makeClient(server);
    std::vector<double> times;
    for (std::size_t i = 0; i < kFewTimes; ++i) {
        Evaluation evaluation;
        client->run("print('on', flush=True)\nwhile True: pass");
        while (!client->advance(evaluation) && evaluation.lines == 0)
            client->read();
        const auto begin = Clock::now();
        client->interrupt();
        client->finish(evaluation);
        times.push_back(secondsSince(begin));
        if (evaluation.error.find("KeyboardInterrupt") == std::string::npos &&
            evaluation.error.find("interrupted") == std::string::npos)
            throw std::runtime_error("the loop ended with \"" + evaluation.error + "\"");
    }
    printTimes(times);
}

void further(const Server& server, std::size_t count)
{
    std::vector<double> times;
    while (times.size() < count) {
        const auto begin = Clock::now();
        const auto client = makeClient(server);
        evaluateOnce(*client);
        times.push_back(secondsSince(begin));
    }
    printTimes(times);
}

void idle(const Server& server, std::size_t count)
{
    std::vector<std::unique_ptr<ConsoleClient>> clients;
    while (clients.size() < count) {
        clients.push_back(makeClient(server));
        evaluateOnce(*clients.back());
    }
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

void measure(const Server& server, const std::string& what, std::size_t count)
{
    const std::map<std::string, std::function<void()>> measurements{
        {"sequential", [&] { sequential(server, false); }},
        {"prompt", [&] { sequential(server, true); }},
        {"http", [&] { stateless(server); }},
        {"four", [&] { fourAtOnce(server); }},
        {"short", [&] { output(server, "i"); }},
        {"long", [&] { output(server, "f'{i:079d}'"); }},
        {"completion", [&] { completion(server); }},
        {"interrupt", [&] { interrupt(server); }},
        {"further", [&] { further(server, count); }},
        {"idle", [&] { idle(server, count); }},
    };
    const auto found = measurements.find(what);
    if (found == measurements.end())
        throw std::runtime_error("no measurement \"" + what + "\"");
    found->second();
}

std::string orEmpty(const char* argument) { return std::string_view(argument) == "-" ? "" : argument; }

} // namespace

int main(int argc, char** argv)
try {
    if (argc < 6)
        throw std::runtime_error("see the head of the source for the arguments");
    const Server server{argv[1], static_cast<std::uint16_t>(std::atoi(argv[2])), orEmpty(argv[3]), orEmpty(argv[4])};
    measure(server, argv[5], argc > 6 ? std::strtoul(argv[6], nullptr, 10) : kFewTimes);
} catch (const std::exception& error) {
    std::fprintf(stderr, "host_driver: %s\n", error.what());
    return 2;
}
