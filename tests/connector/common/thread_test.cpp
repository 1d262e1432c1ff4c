#include "connector/common/Thread.h"

#include <csignal>
#include <future>

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

using namespace connector::common;

TEST(Thread, HasItsNameAndLeavesSignalsToTheHost)
{
    sigset_t seen{};
    char name[32] = {};
    auto thread = startThread("a-name-that-is-too-long", [&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &seen);
        pthread_getname_np(pthread_self(), name, sizeof name);
    });
    joinThread(std::move(thread));

    EXPECT_STREQ(name, "a-name-that-is-");
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGALRM, SIGPIPE})
        EXPECT_TRUE(sigismember(&seen, signal)) << signal;
    EXPECT_FALSE(sigismember(&seen, SIGSEGV));
    sigset_t own{};
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_FALSE(sigismember(&own, SIGINT));
}

TEST(Thread, OneThatJoinsItselfIsJoinedLater)
{
    std::promise<std::thread> handle;
    std::promise<void> done;
    auto thread = startThread("self", [&] {
        joinThread(handle.get_future().get());
        done.set_value();
    });
    handle.set_value(std::move(thread));
    done.get_future().get();
    joinThread(startThread("next", [] {}));
}

} // namespace
