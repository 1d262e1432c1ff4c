#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "connector/security/NonceService.h"

namespace connector::security::v1 {
namespace {

using namespace std::chrono_literals;

TEST(NonceService, OneOfManyRedeemersSucceeds)
{
    NonceServiceImpl nonces;
    const auto nonce = nonces.issue("entry", 60s);
    std::atomic<int> successes{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 100; ++i)
        threads.emplace_back([&] { successes += nonces.redeem(nonce, "entry"); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(successes, 1);
}

TEST(NonceService, BoundToPurposeAndTime)
{
    NonceServiceImpl nonces;
    const auto nonce = nonces.issue("entry", 60s);
    EXPECT_EQ(nonce.size(), 64u);
    EXPECT_FALSE(nonces.redeem(nonce, "upload"));
    EXPECT_FALSE(nonces.redeem(nonce.substr(1), "entry"));
    EXPECT_FALSE(nonces.redeem("", "entry"));
    EXPECT_TRUE(nonces.redeem(nonce, "entry")) << "a wrong purpose does not use it up";
    EXPECT_FALSE(nonces.redeem(nonces.issue("entry", 0s), "entry"));
}

TEST(NonceService, IsBoundedAndForgetsTheExpired)
{
    NonceServiceImpl nonces;
    for (std::size_t i = 0; i < NonceServiceImpl::kMaxOutstanding; ++i)
        nonces.issue("entry", i == 0 ? 0s : 60s);
    EXPECT_NO_THROW(nonces.issue("entry", 60s));
    EXPECT_THROW(nonces.issue("entry", 60s), std::runtime_error);
}

} // namespace
} // namespace connector::security::v1
