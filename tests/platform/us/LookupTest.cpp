#include "Fixture.h"
#include "platform/us/Dump.h"

namespace us_test {

using us::ServiceProperties;

Texts namesOf(const std::vector<us::ServiceReference<Greeter>>& references)
{
    Texts names;
    for (const auto& reference : references)
        names.push_back(reference.GetProperty("name").ToString());
    return names;
}

TEST_F(UsTest, BestIsTheHighestRankingThenTheOldest)
{
    auto a = offer("a");
    auto b = offer("b", {{"Service.Ranking", 5}});
    const auto c = offer("c", {{"service.ranking", 5}});
    const auto d = offer("d", {{"service.ranking", 9L}}); // a long is no ranking
    auto e = offer("e", {{"service.ranking", -1}});
    EXPECT_EQ(namesOf(context().GetServiceReferences<Greeter>()), (Texts{"b", "c", "a", "d", "e"}));
    EXPECT_EQ(context().GetServiceReference<Greeter>(), b.GetReference());
    EXPECT_EQ(namesOf(context().GetServiceReferences<Greeter>("(|(name=d)(name=c))")), (Texts{"c", "d"}));
    EXPECT_TRUE(context().GetServiceReferences<Counter>().empty());
    EXPECT_FALSE(context().GetServiceReference<Counter>());
    EXPECT_EQ(context().GetServiceReferences("", "(name=e)").size(), 1u);
    EXPECT_THROW(context().GetServiceReferences<Greeter>("(name=e"), std::invalid_argument);

    e.SetProperties({{"name", "e"}, {"service.ranking", 6}});
    b.Unregister();
    EXPECT_EQ(namesOf(context().GetServiceReferences<Greeter>()), (Texts{"e", "c", "a", "d"}));

    EXPECT_TRUE(c.GetReference().IsBetterThan(d.GetReference()));
    EXPECT_TRUE(a.GetReference().IsBetterThan(d.GetReference()));
    EXPECT_FALSE(a.GetReference().IsBetterThan(a.GetReference()));
    const us::ServiceReference<Greeter> none;
    EXPECT_TRUE(a.GetReference().IsBetterThan(none));
    EXPECT_FALSE(none.IsBetterThan(none));
    EXPECT_LT(none, a.GetReference());
    EXPECT_FALSE(none < none);
    EXPECT_LT(a.GetReference(), e.GetReference()) << "containers go by age, not by ranking";
}

TEST_F(UsTest, UsesAreCountedUntilTheLastCopyIsDropped)
{
    const auto registration = offer("a");
    const auto reference = registration.GetReference();
    EXPECT_TRUE(framework_->GetServicesInUse().empty());
    auto first = context().GetService(reference);
    auto second = context().GetService(reference);
    auto third = second;
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(reference.GetUsingBundles(), (std::vector<std::shared_ptr<us::Bundle>>{framework_}));
    EXPECT_EQ(framework_->GetServicesInUse().size(), 1u);
    first.reset();
    second.reset();
    EXPECT_EQ(reference.GetUsingBundles().size(), 1u);
    third.reset();
    EXPECT_TRUE(reference.GetUsingBundles().empty());
    EXPECT_EQ(framework_->GetRegisteredServices().size(), 1u);
}

TEST_F(UsTest, AReferenceToNothingIsHarmless)
{
    const us::ServiceReference<Greeter> none;
    EXPECT_EQ(textOf<std::invalid_argument>([&] { context().GetService(none); }),
              "Default constructed ServiceReference is not a valid input to GetService()");
    EXPECT_TRUE(none.GetProperty("service.id").Empty());
    EXPECT_TRUE(none.GetPropertyKeys().empty());
    EXPECT_EQ(none.GetBundle(), nullptr);
    std::ostringstream out;
    out << none;
    EXPECT_EQ(out.str(), "Invalid service reference");
}

TEST_F(UsTest, APointerOfAnEarlierRunDoesNotEndAUseOfThisOne)
{
    const auto before = offer("a");
    auto old = context().GetService(before.GetReference());
    framework_->Stop();
    framework_->Start();
    const auto now = offer("a");
    const auto held = context().GetService(now.GetReference());
    old.reset();
    EXPECT_EQ(now.GetReference().GetUsingBundles().size(), 1u);
}

TEST_F(UsTest, DumpShowsServicesUsersAndTrackers)
{
    const auto registration = offer("a", {{"service.ranking", 2}});
    const std::string id = registration.GetReference().GetProperty("service.id").ToString();
    const auto used = context().GetService(registration.GetReference());
    us::ServiceTracker<Greeter> closed(&context());
    us::ServiceTracker<Greeter> matching(&context(), us::LDAPFilter("(name=a)"));
    us::ServiceTracker<Counter> waiting(&context());
    matching.Open();
    waiting.Open();
    std::ostringstream out;
    us::Dump(out, *framework_);
    EXPECT_EQ(out.str(), "bundle system_bundle(0) active System Bundle\n"
                         "services: 1\n"
                         "  " +
                             id +
                             " us.test.Greeter/1.0 owner=system_bundle(0) ranking=2 "
                             "users=[system_bundle(0) x2]\n"
                             "open trackers: 2\n"
                             "  us.test.Greeter/1.0 filter=(name=a) owner=system_bundle(0) matches=1\n"
                             "  us.test.Counter/1.0 owner=system_bundle(0) matches=0\n");
}

} // namespace us_test
