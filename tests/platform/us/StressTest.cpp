#include <atomic>
#include <barrier>
#include <cstdlib>
#include <future>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "Fixture.h"
#include "platform/us/Exceptions.h"

namespace us_test {

using namespace std::chrono_literals;

/// Ends the program when the work under test hangs, since nothing else could.
class Watchdog
{
public:
    explicit Watchdog(std::chrono::seconds limit)
        : ended_(end_.get_future()), thread_([this, limit] {
              if (ended_.wait_for(limit) == std::future_status::timeout) {
                  std::cerr << "deadlock: still at work after " << limit.count() << " s" << std::endl;
                  std::abort();
              }
          })
    {}
    ~Watchdog()
    {
        end_.set_value();
        thread_.join();
    }

private:
    std::promise<void> end_;
    std::future<void> ended_;
    std::thread thread_;
};

/// How often live objects of the kind exist.
struct Counted : Both
{
    explicit Counted(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
    ~Counted() override { --alive_; }
    std::atomic<int>& alive_;
};

class Workers
{
public:
    Workers(us::BundleContext& context, std::atomic<int>& alive) : context_(context), alive_(alive) {}

    void provide()
    {
        try {
            for (int i = 0; !done_; ++i) {
                auto registration = context_.RegisterService<Greeter, Counter>(std::make_shared<Counted>(alive_),
                                                                               {{"service.ranking", i % 3}});
                registration.SetProperties({{"service.ranking", i % 5}, {"even", i % 2 == 0}});
                registration.Unregister();
            }
        } catch (const us::InvalidContextException&) {
        } catch (const std::logic_error&) { // unregistered by the stop
        }
    }

    void consume()
    {
        us::ServiceTracker<Greeter> all(&context_);
        us::ServiceTracker<Counter> even(&context_, us::LDAPFilter("(even=true)"));
        try {
            while (!done_) {
                all.Open();
                even.Open();
                if (const auto service = all.GetService())
                    served_ += static_cast<int>(service->greet().size());
                if (const auto service = even.WaitForService(1ms))
                    served_ += service->count();
                if (const auto reference = context_.GetServiceReference<Counter>())
                    if (const auto service = context_.GetService(reference))
                        served_ += service->count();
                const auto token =
                    context_.AddServiceListener([this](const us::ServiceEvent&) { ++heard_; }, "(even=true)");
                context_.RemoveListener(token);
                all.Close();
                even.Close();
            }
        } catch (const us::InvalidContextException&) {
        }
        // Closed by the end of the context, or open when the round ended: both must hold no more than they see.
        EXPECT_LE(all.Size(), 3u);
    }

    void finish() { done_ = true; }
    int served() const { return served_; }

private:
    us::BundleContext& context_;
    std::atomic<int>& alive_;
    std::atomic<bool> done_ = false;
    std::atomic<int> served_ = 0;
    std::atomic<int> heard_ = 0;
};

TEST_F(UsTest, StressEndsWithNothingLeft)
{
    const Watchdog watchdog(50s);
    std::atomic<int> alive = 0;
    int served = 0;
    for (int round = 0; round < 20; ++round) {
        framework_->Start();
        Workers workers(context(), alive);
        us::ServiceTracker<Greeter> constant(&context());
        constant.Open();
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 3; ++i)
                threads.emplace_back([&] { workers.provide(); });
            for (int i = 0; i < 2; ++i)
                threads.emplace_back([&] { workers.consume(); });
            while (constant.GetTrackingCount() < 200)
                constant.WaitForService(1ms);
            if (round % 2 == 0) // else the work ends first, and the stop finds what it left
                framework_->Stop();
            workers.finish();
        }
        if (round % 2 == 1) {
            EXPECT_TRUE(constant.IsEmpty());
            EXPECT_TRUE(framework_->GetServicesInUse().empty());
        }
        framework_->Stop();
        EXPECT_EQ(constant.Size(), 0u);
        EXPECT_EQ(alive, 0) << "objects outlive their services, round " << round;
        EXPECT_TRUE(framework_->GetRegisteredServices().empty());
        served += workers.served();
    }
    EXPECT_GT(served, 0) << "the consumers never met a service: the test tests nothing";
}

TEST_F(UsTest, OnlyOneOfManyUnregistersAndStops)
{
    const Watchdog watchdog(50s);
    Recorder recorder;
    for (int round = 0; round < 50; ++round) {
        framework_->Start();
        context().AddServiceListener(recorder.listener());
        const auto registration = offer("a");
        const auto reference = registration.GetReference();
        std::barrier together(4);
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 2; ++i)
                threads.emplace_back([&] {
                    auto copy = registration;
                    together.arrive_and_wait();
                    try {
                        copy.Unregister();
                    } catch (const std::logic_error&) {
                    }
                });
            for (int i = 0; i < 2; ++i)
                threads.emplace_back([&] {
                    together.arrive_and_wait();
                    framework_->Stop();
                });
        }
        EXPECT_FALSE(reference);
        const Texts heard = recorder.take();
        // Announced once; not at all when the stop had removed the listener before.
        EXPECT_LE(heard.size(), 2u);
        EXPECT_EQ(heard.front(), "REGISTERED a");
    }
}

} // namespace us_test
