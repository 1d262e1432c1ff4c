#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>

#include "Fixture.h"
#include "platform/us/Exceptions.h"

namespace us_test {

using us::Bundle;
using us::ServiceProperties;

TEST(UsFramework, HasIdentityBeforeAndContextOnlyAfterStart)
{
    const auto framework = us::FrameworkFactory().NewFramework({{"custom.key", 7}});
    EXPECT_FALSE(framework->IsStarted());
    EXPECT_EQ(framework->GetBundleContext(), nullptr);
    EXPECT_EQ(framework->GetBundleId(), 0);
    EXPECT_EQ(framework->GetLocation(), "System Bundle");
    EXPECT_EQ(framework->GetName(), "system_bundle");
    framework->Stop();
    EXPECT_EQ(framework->GetState(), Bundle::STATE_INSTALLED);

    framework->Start();
    const auto* context = framework->GetBundleContext();
    ASSERT_NE(context, nullptr);
    framework->Start();
    EXPECT_EQ(framework->GetBundleContext(), context);
    EXPECT_EQ(framework->GetState(), Bundle::STATE_ACTIVE);
    EXPECT_EQ(context->GetBundle(), framework);
    EXPECT_EQ(context->GetBundle("system_bundle"), framework);
    EXPECT_EQ(context->GetBundle(1), nullptr);
    EXPECT_EQ(context->GetProperty("CUSTOM.key"), us::Any(7));
    EXPECT_TRUE(context->GetProperty("custom").Empty());
    EXPECT_EQ(us::any_cast<long>(framework->GetProperty("bundle.id")), 0);

    framework->Stop();
    framework->Stop();
    EXPECT_EQ(framework->GetState(), Bundle::STATE_RESOLVED);
    EXPECT_EQ(framework->GetBundleContext(), nullptr);
}

TEST_F(UsTest, RestartBeginsEmptyWithANewContextAndGrowingIds)
{
    Recorder recorder;
    auto* const before = &context();
    before->AddServiceListener(recorder.listener());
    const auto first = us::any_cast<long>(offer("a").GetReference().GetProperty("service.id"));
    framework_->Stop();
    framework_->Start();
    EXPECT_NE(&context(), before);
    EXPECT_TRUE(context().GetServiceReferences("").empty());
    EXPECT_GT(us::any_cast<long>(offer("b").GetReference().GetProperty("service.id")), first);
    EXPECT_EQ(recorder.take(), (Texts{"REGISTERED a", "UNREGISTERING a"}));
}

TEST_F(UsTest, CannotBeUninstalled)
{
    EXPECT_EQ(textOf<std::runtime_error>([&] { framework_->Uninstall(); }), "Cannot uninstall a system bundle.");
    EXPECT_TRUE(offer("still works").GetReference());
}

TEST_F(UsTest, FrameworksDoNotSeeEachOther)
{
    const auto other = us::FrameworkFactory().NewFramework();
    other->Start();
    Recorder recorder;
    other->GetBundleContext()->AddServiceListener(recorder.listener());
    offer("a");
    EXPECT_FALSE(other->GetBundleContext()->GetServiceReference<Greeter>());
    EXPECT_EQ(recorder.take(), Texts{});
}

/// What clients keep when they do not tidy up.
struct Leftovers
{
    explicit Leftovers(us::Framework& framework)
        : context(framework.GetBundleContext()),
          registration(context->RegisterService<Greeter>(std::make_shared<Both>(), {{"name", "left"}})),
          reference(registration.GetReference()), service(context->GetService(reference)), tracker(context)
    {
        tracker.Open();
        tracked = tracker.GetService();
    }

    us::BundleContext* context;
    us::ServiceRegistration<Greeter> registration;
    us::ServiceReference<Greeter> reference;
    std::shared_ptr<Greeter> service;
    us::ServiceTracker<Greeter> tracker;
    std::shared_ptr<Greeter> tracked;
};

TEST_F(UsTest, LeftoversOfADestroyedFrameworkAreInert)
{
    std::weak_ptr<Both> object;
    {
        Leftovers left(*framework_);
        auto unheld = [&] {
            const auto service = std::make_shared<Both>();
            object = service;
            return context().RegisterService<Greeter>(service);
        }();
        framework_.reset();
        EXPECT_TRUE(object.expired()) << "a destroyed framework keeps services";
        EXPECT_EQ(textOf<us::InvalidContextException>([&] { left.tracker.Open(); }),
                  "The bundle context is no longer valid");
        EXPECT_EQ(textOf<std::logic_error>([&] { left.registration.Unregister(); }), "Service is unregistered");
        EXPECT_EQ(textOf<std::logic_error>([&] { unheld.SetProperties({}); }), "Service is unregistered");
        EXPECT_FALSE(left.reference);
        EXPECT_EQ(left.reference.GetBundle(), nullptr);
        EXPECT_TRUE(left.reference.GetUsingBundles().empty());
        EXPECT_EQ(left.reference.GetProperty("name").ToString(), "left");
        EXPECT_EQ(left.service->greet() + left.tracked->greet(), "hellohello");
        EXPECT_TRUE(left.tracker.IsEmpty());
        EXPECT_EQ(left.tracker.GetService(), nullptr);
        left.tracker.Close();
    }
    EXPECT_EQ(framework_, nullptr);
}

TEST(UsFrameworkDeathTest, LeftoversMayBeStaticsThatOutliveIt)
{
    EXPECT_EXIT(
        {
            static std::unique_ptr<Leftovers> left; // destroyed after the framework
            static std::shared_ptr<us::Framework> framework = us::FrameworkFactory().NewFramework();
            framework->Start();
            left = std::make_unique<Leftovers>(*framework);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(UsTest, AllCallsOnADeadContextThrow)
{
    auto& dead = context();
    Recorder recorder;
    const auto registration = offer("a");
    const auto reference = registration.GetReference();
    const auto token = dead.AddServiceListener(recorder.listener());
    framework_->Stop();
    const std::vector<std::pair<const char*, std::function<void()>>> calls{
        {"GetProperty", [&] { dead.GetProperty("x"); }},
        {"GetBundle", [&] { dead.GetBundle(); }},
        {"GetBundle(id)", [&] { dead.GetBundle(0); }},
        {"GetBundle(name)", [&] { dead.GetBundle("system_bundle"); }},
        {"GetBundles", [&] { dead.GetBundles(); }},
        {"RegisterService", [&] { dead.RegisterService<Greeter>(std::make_shared<Both>()); }},
        {"RegisterService(null)", [&] { dead.RegisterService(nullptr); }},
        {"GetServiceReference", [&] { dead.GetServiceReference<Greeter>(); }},
        {"GetServiceReferences", [&] { dead.GetServiceReferences<Greeter>(); }},
        {"GetService", [&] { dead.GetService(reference); }},
        {"GetService(none)", [&] { dead.GetService(us::ServiceReferenceU()); }},
        {"AddServiceListener", [&] { dead.AddServiceListener(recorder.listener()); }},
        {"RemoveListener", [&] { dead.RemoveListener(token); }},
        {"RemoveServiceListener", [&] { dead.RemoveServiceListener(&recorder, &Recorder::heard); }},
    };
    for (const auto& [name, call] : calls)
        EXPECT_EQ(textOf<us::InvalidContextException>(call), "The bundle context is no longer valid") << name;
}

TEST_F(UsTest, CannotBeStoppedFromWithinItsStop)
{
    Texts heard;
    context().AddServiceListener([&](const us::ServiceEvent& event) {
        if (event.GetType() != us::ServiceEvent::UNREGISTERING)
            return;
        heard.push_back(textOf<std::logic_error>([&] { framework_->Stop(); }));
        // It goes with the rest, and its end would register another one, and so on.
        context().RegisterService<Counter>(std::make_shared<Both>());
    });
    const auto registration = offer("a");
    bool once = false;
    context().AddServiceListener([&](const us::ServiceEvent&) { once = true; }, "(objectclass=us.test.Counter/1.0)");
    framework_->Stop();
    EXPECT_TRUE(once);
    ASSERT_FALSE(heard.empty());
    EXPECT_EQ(heard.front(), "Bundle system_bundle is being started or stopped; what runs within that cannot change "
                             "its state");
    EXPECT_TRUE(framework_->GetRegisteredServices().empty());
}

} // namespace us_test
