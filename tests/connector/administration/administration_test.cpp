#include "connector/administration/AdministrationImpl.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace connector;
using namespace connector::administration;

Command joining(const std::string& name)
{
    return {name, "WORD…: joins words", [](std::vector<std::string> words) {
                std::string joined;
                for (const auto& word : words)
                    joined += word;
                if (joined.empty())
                    throw std::invalid_argument("no words");
                return makeReadyFuture(joined);
            }};
}

class Joining : public CommandProvider
{
public:
    Joining(std::shared_ptr<Administration> administration, const std::vector<std::string>& names)
        : CommandProvider(std::move(administration))
    {
        for (const auto& name : names)
            add(joining(name));
    }
};

std::string failure(Future<std::string> future)
{
    try {
        return "answered " + future.get();
    } catch (const std::exception& error) {
        return error.what();
    }
}

std::string names(Administration& administration)
{
    std::string all;
    for (const auto& command : administration.getAll().get())
        all += command.name() + " ";
    return all;
}

TEST(Administration, CommandsAreKeptByNameAndRun)
{
    const auto administration = std::make_shared<AdministrationImpl>();
    EXPECT_TRUE(administration->add(joining("b")).get());
    EXPECT_TRUE(administration->add(joining("a")).get());
    EXPECT_FALSE(administration->add(joining("a")).get()) << "stands in for the earlier one";
    EXPECT_TRUE(administration->remove("a").get());
    EXPECT_EQ(names(*administration), "a b ");
    EXPECT_EQ(administration->execute("a", {"x", "y"}).get(), "xy");
    EXPECT_TRUE(administration->remove("a").get());
    EXPECT_FALSE(administration->remove("a").get());
    EXPECT_EQ(failure(administration->execute("a", {})), "There is no command \"a\".");
}

TEST(Administration, FailuresAreFuturesThatFailed)
{
    const auto administration = std::make_shared<AdministrationImpl>();
    for (const auto* name : {"", "two words", "line\n"})
        EXPECT_THROW(administration->add(joining(name)).get(), std::invalid_argument) << name;
    EXPECT_THROW(administration->add(Command("a", "", nullptr)).get(), std::invalid_argument);
    administration->add(joining("a")).get();
    administration->add(Command("silent", "", [](auto) { return Future<std::string>(); })).get();
    EXPECT_EQ(failure(administration->execute("a", {})), "no words");
    EXPECT_EQ(failure(administration->execute("silent", {})), "The command \"silent\" gave no answer.");
}

TEST(Administration, CommandMayRemoveItself)
{
    const auto administration = std::make_shared<AdministrationImpl>();
    auto* const raw = administration.get();
    administration
        ->add(Command("once", "", [raw](auto) { return makeReadyFuture(std::to_string(raw->remove("once").get())); }))
        .get();
    EXPECT_EQ(administration->execute("once", {}).get(), "1");
    EXPECT_EQ(names(*administration), "");
}

TEST(Administration, ProviderTakesBackWhatItAddedAndNothingElse)
{
    const auto administration = std::make_shared<AdministrationImpl>();
    administration->add(joining("other")).get();
    {
        const Joining provider(administration, {"x", "y"});
        EXPECT_EQ(names(*administration), "other x y ");
        const auto successor = std::make_unique<Joining>(administration, std::vector<std::string>{"x", "z"});
        EXPECT_EQ(names(*administration), "other x y z ");
    }
    EXPECT_EQ(names(*administration), "other ");
    EXPECT_THROW(Joining(nullptr, {}), std::invalid_argument);
}

} // namespace
