#include <map>

#include "Fixture.h"

namespace us_test {

using us::any_cast;
using us::ServiceProperties;

TEST_F(UsTest, AutomaticPropertiesHaveTheirTypesAndWinOverTheProviders)
{
    const auto plain = context().RegisterService<Greeter, Counter>(std::make_shared<Both>());
    const auto claims = context().RegisterService<Greeter>(
        std::make_shared<Both>(),
        {{"Service.ID", 777L}, {"OBJECTCLASS", "mine"}, {"service.scope", 3}, {"service.bundleid", 9L}});
    const std::map<us::ServiceReferenceU, Texts> expected{
        {plain.GetReference(), {"us.test.Counter/1.0", "us.test.Greeter/1.0"}},
        {claims.GetReference(), {"us.test.Greeter/1.0"}}};
    for (const auto& [reference, interfaces] : expected) {
        EXPECT_EQ(reference.GetPropertyKeys(),
                  (Texts{"objectclass", "service.bundleid", "service.id", "service.scope"}));
        EXPECT_EQ(any_cast<Texts>(reference.GetProperty("objectclass")), interfaces);
        EXPECT_NE(any_cast<long>(reference.GetProperty("SERVICE.ID")), 777);
        EXPECT_EQ(any_cast<std::string>(reference.GetProperty("service.scope")), "singleton");
        EXPECT_EQ(any_cast<long>(reference.GetProperty("service.bundleid")), 0);
    }
}

TEST_F(UsTest, KeysThatDifferOnlyInCaseAreRefusedPrefixesAreNot)
{
    const auto registration = offer("a", {{"abc", 1}, {"abcdef", 2}});
    EXPECT_EQ(registration.GetReference().GetProperty("ABC"), us::Any(1));
    EXPECT_TRUE(registration.GetReference().GetProperty("abcd").Empty());
    const ServiceProperties variants{{"abc", 1}, {"aBc", 2}};
    EXPECT_TRUE(textOf<std::invalid_argument>([&] {
                    offer("b", variants);
                }).starts_with("Properties contain case variants of the key: a"));
    auto copy = registration;
    EXPECT_THROW(copy.SetProperties(variants), std::invalid_argument);
    EXPECT_EQ(registration.GetReference().GetProperty("abcdef"), us::Any(2)) << "a refused change changed something";
    EXPECT_EQ(context().GetServiceReferences("").size(), 1u);
}

TEST_F(UsTest, RefusesNothingAsAService)
{
    const auto object = std::make_shared<Both>();
    const char* const kEmptyMap = "Can't register empty InterfaceMap as a service";
    const char* const kNull = "Can't register as null class";
    const std::vector<std::pair<us::InterfaceMapConstPtr, std::string>> table{
        {nullptr, kEmptyMap},
        {std::make_shared<us::InterfaceMap>(), kEmptyMap},
        {std::make_shared<us::InterfaceMap>(us::InterfaceMap{{"", object}}), kNull},
        {std::make_shared<us::InterfaceMap>(us::InterfaceMap{{"x", nullptr}}), kNull},
        {us::MakeInterfaceMap<Greeter>(std::shared_ptr<Both>()), kNull}};
    for (const auto& [map, text] : table)
        EXPECT_EQ(textOf<std::invalid_argument>([&, &objects = map] { context().RegisterService(objects); }), text);
    EXPECT_TRUE(context().GetServiceReferences("").empty());
}

TEST_F(UsTest, UnregisterEndsTheServiceButNotWhatIsHeld)
{
    std::weak_ptr<Both> object;
    auto registration = [&] {
        const auto both = std::make_shared<Both>("kept");
        object = both;
        return context().RegisterService<Greeter>(both, {{"name", "a"}});
    }();
    const auto reference = registration.GetReference();
    auto held = context().GetService(reference);
    EXPECT_EQ(reference.GetUsingBundles().size(), 1u);
    registration.Unregister();
    EXPECT_FALSE(reference);
    EXPECT_FALSE(context().GetServiceReference<Greeter>());
    EXPECT_EQ(reference.GetBundle(), nullptr);
    EXPECT_TRUE(reference.GetUsingBundles().empty());
    EXPECT_EQ(reference.GetProperty("name").ToString(), "a");
    EXPECT_EQ(context().GetService(reference), nullptr) << "a stale reference";
    EXPECT_EQ(held->greet(), "kept");
    held.reset();
    EXPECT_TRUE(object.expired());
}

TEST_F(UsTest, DuringUnregisteringTheServiceStillWorksButIsNotFound)
{
    auto registration = offer("a");
    Texts seen;
    context().AddServiceListener(
        [&](const us::ServiceEvent& event) {
            const auto reference = event.GetServiceReference<Greeter>();
            seen.push_back(reference ? "valid" : "invalid");
            seen.push_back(context().GetService(reference)->greet());
            seen.push_back(context().GetServiceReference<Greeter>() ? "found" : "not found");
            registration.Unregister(); // silent, and does not recurse
            registration.SetProperties({{"name", "b"}});
            seen.push_back(registration.GetReference().GetProperty("name").ToString());
        },
        "(name=a)");
    registration.Unregister();
    // The change inside is told (as MODIFIED_ENDMATCH) before the call that makes it returns.
    EXPECT_EQ(seen, (Texts{"valid", "a", "not found", "valid", "a", "not found", "b", "b"}));
}

TEST_F(UsTest, HandleErrorsAreToldApart)
{
    const auto gone = offer("gone");
    auto copy = gone;
    copy.Unregister();
    auto nulled = offer("nulled");
    nulled = nullptr;
    const auto stopped = offer("stopped");
    framework_->Stop();

    const std::vector<std::pair<us::ServiceRegistration<Greeter>, std::string>> table{
        {{}, "ServiceRegistrationBase object invalid"},
        {nulled, "ServiceRegistrationBase object invalid"},
        {gone, "Service is unregistered"},
        {stopped, "Service is unregistered"}};
    for (const auto& [handle, text] : table) {
        auto each = handle;
        EXPECT_EQ(textOf<std::logic_error>([&] { each.Unregister(); }), text);
        EXPECT_EQ(textOf<std::logic_error>([&] { each.SetProperties({}); }), text);
        EXPECT_EQ(textOf<std::logic_error>([&] { each.GetReference(); }), text);
        EXPECT_EQ(static_cast<bool>(each), text == "Service is unregistered") << "ever bound";
    }
}

TEST_F(UsTest, HandlesAreValuesThatDoNotUnregister)
{
    us::ServiceRegistration<Greeter> slot = offer("a");
    auto copy = slot;
    EXPECT_EQ(copy, slot);
    slot = us::ServiceRegistration<Greeter>(); // as a slot is emptied
    EXPECT_FALSE(slot);
    EXPECT_NE(copy, slot);
    slot = offer("b");
    slot = us::ServiceRegistration{};
    EXPECT_FALSE(slot);
    us::ServiceRegistrationU untyped = copy;
    us::ServiceRegistration<Greeter> typed = untyped;
    us::ServiceRegistration<Greeter, Counter> tooMuch = untyped;
    EXPECT_EQ(typed, copy);
    EXPECT_FALSE(tooMuch);
    copy = nullptr;
    typed = nullptr;
    untyped = nullptr;
    EXPECT_EQ(context().GetServiceReferences<Greeter>().size(), 2u);
}

TEST_F(UsTest, SetPropertiesReplacesAndTellsWhomItConcerns)
{
    Recorder all;
    Recorder red;
    context().AddServiceListener(all.listener());
    context().AddServiceListener(red.listener(), "(colour=red)");
    auto registration = offer("a", {{"colour", "red"}, {"size", 3}});
    const us::Any id = registration.GetReference().GetProperty("service.id");
    registration.SetProperties({{"name", "a2"}, {"colour", "red"}});
    registration.SetProperties({{"name", "a3"}, {"colour", "blue"}});
    registration.SetProperties({{"name", "a4"}});
    EXPECT_TRUE(registration.GetReference().GetProperty("size").Empty());
    EXPECT_EQ(registration.GetReference().GetProperty("service.id"), id);
    registration.Unregister();
    EXPECT_EQ(red.take(), (Texts{"REGISTERED a", "MODIFIED a2", "MODIFIED_ENDMATCH a3"}));
    EXPECT_EQ(all.take(), (Texts{"REGISTERED a", "MODIFIED a2", "MODIFIED a3", "MODIFIED a4", "UNREGISTERING a4"}));
}

TEST_F(UsTest, OneObjectUnderTwoInterfacesIsOneServiceSeenThroughItsSubObjects)
{
    const auto object = std::make_shared<Both>("four");
    const auto registration = context().RegisterService<Greeter, Counter>(object);
    const auto greeter = context().GetServiceReference<Greeter>();
    const auto counter = context().GetServiceReference<Counter>();
    EXPECT_EQ(context().GetService(greeter).get(), static_cast<Greeter*>(object.get()));
    EXPECT_EQ(context().GetService(counter).get(), static_cast<Counter*>(object.get()));
    EXPECT_NE(static_cast<void*>(context().GetService(counter).get()), static_cast<void*>(object.get()));
    EXPECT_EQ(greeter, counter);
    EXPECT_EQ(us::ServiceReference<Counter>(greeter), registration.GetReference<Counter>());
    EXPECT_EQ(context().GetService(us::ServiceReference<Counter>(greeter))->count(), 4);
    EXPECT_FALSE(us::ServiceReference<Unoffered>(greeter));

    const auto objects = context().GetService(us::ServiceReferenceU(greeter));
    EXPECT_EQ(us::ExtractInterface<Counter>(objects).get(), static_cast<Counter*>(object.get()));
    EXPECT_EQ(us::ExtractInterface<Unoffered>(objects), nullptr);
    EXPECT_EQ(us_service_interface_iid<Unoffered>(), "us_test::Unoffered") << "undeclared: the readable type name";
}

} // namespace us_test
