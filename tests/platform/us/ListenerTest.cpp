#include <functional>
#include <stdexcept>

#include "Fixture.h"

namespace us_test {

using us::ServiceEvent;

TEST_F(UsTest, ListenersMayDoAnythingInside)
{
    Recorder recorder;
    us::ListenerToken self;
    us::ServiceRegistration<Counter> inner;
    self = context().AddServiceListener(
        [&](const ServiceEvent& event) {
            recorder.heard(event);
            context().RemoveListener(self);
            context().AddServiceListener(&recorder, &Recorder::heard, "(name=inner)");
            inner = context().RegisterService<Counter>(std::make_shared<Both>(), {{"name", "inner"}});
            recorder.add(context().GetService(event.GetServiceReference<Greeter>())->greet());
            inner.Unregister();
        },
        "(name=outer)");
    auto outer = offer("outer");
    outer.Unregister();
    EXPECT_EQ(recorder.take(), (Texts{"REGISTERED outer", "REGISTERED inner", "outer", "UNREGISTERING inner"}));
}

TEST_F(UsTest, ARemovedListenerIsNotCalledForTheEventUnderWay)
{
    Recorder recorder;
    us::ListenerToken first, second;
    first = context().AddServiceListener([&](const ServiceEvent&) {
        recorder.add("one of two");
        context().RemoveListener(second);
    });
    second = context().AddServiceListener([&](const ServiceEvent&) {
        recorder.add("one of two");
        context().RemoveListener(first);
    });
    const auto registration = offer("a");
    EXPECT_EQ(recorder.take(), Texts{"one of two"});
    framework_->Stop(); // while what the listeners use is there
}

TEST_F(UsTest, AFailingListenerDisturbsNobodyAndIsReported)
{
    Recorder recorder;
    context().AddServiceListener([](const ServiceEvent&) { throw std::runtime_error("broken listener"); });
    context().AddServiceListener(recorder.listener());
    context().AddServiceListener([](const ServiceEvent&) { throw 5; });
    testing::internal::CaptureStderr();
    const auto registration = offer("a");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(recorder.take(), Texts{"REGISTERED a"});
    EXPECT_NE(log.find("A service listener failed on REGISTERED Reference for service of system_bundle (name=a"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(": broken listener"), std::string::npos) << log;
    EXPECT_NE(log.find(": an exception of unknown type"), std::string::npos) << log;
    framework_->Stop();
}

TEST_F(UsTest, TokensTellListenersApart)
{
    Recorder one, two;
    const auto first = context().AddServiceListener(one.listener());
    const auto second = context().AddServiceListener(two.listener());
    auto a = offer("a");
    context().RemoveListener(first);
    context().RemoveListener(first);
    context().RemoveListener(us::ListenerToken());
    a.Unregister();
    EXPECT_EQ(one.take(), Texts{"REGISTERED a"});
    EXPECT_EQ(two.take(), (Texts{"REGISTERED a", "UNREGISTERING a"}));
    EXPECT_TRUE(second);
    EXPECT_THROW(context().AddServiceListener(us::ServiceListener()), std::invalid_argument);
    EXPECT_THROW(context().AddServiceListener(one.listener(), "(a"), std::invalid_argument);
}

struct TwoMethods : Recorder
{
    void other(const ServiceEvent&) { add("other"); }
};

TEST_F(UsTest, TheSameMethodAgainReplacesTheFilter)
{
    TwoMethods one;
    TwoMethods two;
    context().AddServiceListener(&one, &TwoMethods::heard, "(name=a)");
    context().AddServiceListener(&two, &TwoMethods::heard);
    context().AddServiceListener(&one, &TwoMethods::other, "(name=a)");
    const auto token = context().AddServiceListener(&one, &TwoMethods::heard, "(name=b)");
    offer("a");
    offer("b");
    EXPECT_EQ(one.take(), (Texts{"other", "REGISTERED b"}));
    EXPECT_EQ(two.take(), (Texts{"REGISTERED a", "REGISTERED b"}));
    context().RemoveServiceListener(&one, &TwoMethods::other);
    context().RemoveListener(token);
    context().RemoveServiceListener(&one, &TwoMethods::heard); // gone already
    offer("a");
    offer("b");
    EXPECT_EQ(one.take(), Texts{});
    EXPECT_EQ(two.take().size(), 2u);
    framework_->Stop();
}

/// Calls whatever it was given when it dies.
struct Reentrant : Greeter
{
    explicit Reentrant(std::function<void()> last) : end(std::move(last)) {}
    ~Reentrant() override { end(); }
    std::string greet() const override { return "reentrant"; }
    std::function<void()> end;
};

/// A copyable property whose destruction calls into the registry.
struct ReentrantProperty
{
    std::shared_ptr<Reentrant> content;
};

TEST_F(UsTest, DestructorsOfServicesAndPropertiesMayCallTheRegistry)
{
    Recorder recorder;
    const auto look = [&](const std::string& what) {
        return [&, what] {
            auto* const present = framework_->GetBundleContext();
            recorder.add(what + (present && present->GetServiceReference<Greeter>() ? " sees" : " sees not"));
        };
    };
    us::ServiceTracker<Greeter> tracker(&context());
    tracker.Open();
    const auto make = [&](const std::string& name) {
        return context().RegisterService<Greeter>(
            std::make_shared<Reentrant>(look(name)),
            {{"content", ReentrantProperty{std::make_shared<Reentrant>(look("property of " + name))}}});
    };
    auto a = make("a");
    auto b = make("b");
    a.Unregister();
    EXPECT_EQ(recorder.take(), Texts{"a sees"});
    b.SetProperties({});
    EXPECT_EQ(recorder.take(), Texts{"property of b sees"});
    b.Unregister();
    EXPECT_EQ(recorder.take(), Texts{"b sees not"});
    a = nullptr;
    EXPECT_EQ(recorder.take(), Texts{"property of a sees not"});

    auto c = make("c");
    const us::ListenerToken token =
        context().AddServiceListener([held = std::make_shared<Reentrant>(look("listener"))](const ServiceEvent&) {});
    context().RemoveListener(token);
    EXPECT_EQ(recorder.take(), Texts{"listener sees"});
    c = nullptr;
    EXPECT_NO_THROW(framework_->Stop());
    EXPECT_EQ(recorder.take().size(), 2u) << "service and property";
}

} // namespace us_test
