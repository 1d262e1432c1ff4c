#include "connector/json/JsonSerializerImpl.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "connector/core/ConnectorImpl2.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializerServiceProvider.h"
#include "connector/json/Members.h"

namespace {

using namespace connector;
using namespace connector::json;

struct Note : Message
{
    explicit Note(std::string content) : text(std::move(content)) {}
    std::string text;
};

struct Unknown : Message
{};

class NoteSerialization : public JsonSerialization
{
public:
    explicit NoteSerialization(std::shared_ptr<JsonSerializer> serializer, std::string mark = "")
        : JsonSerialization(std::move(serializer))
    {
        add<Note>(
            "Note",
            [mark](const Note& note) {
                auto object = makeObject();
                object->set("text", note.text + mark);
                return object;
            },
            [](Members& members) { return std::make_unique<Note>(members.requireString("text")); });
        add<Unknown>("ReadOnly", nullptr, [](Members&) { return std::make_unique<Unknown>(); });
    }
};

template <class Read>
std::string failure(Read read)
{
    try {
        read();
    } catch (const JsonError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(JsonSerializer, TypedMessagesGoOutAndComeBack)
{
    const auto serializer = std::make_shared<JsonSerializerImpl>();
    const NoteSerialization notes(serializer);
    const auto text = serializer->write(Note("hello"));
    EXPECT_EQ(text, R"({"text":"hello","type":"Note"})");
    const auto message = serializer->read(text);
    ASSERT_NE(dynamic_cast<Note*>(message.get()), nullptr);
    EXPECT_EQ(static_cast<Note&>(*message).text, "hello");
}

TEST(JsonSerializer, WhatIsNotUnderstoodIsNamed)
{
    const auto serializer = std::make_shared<JsonSerializerImpl>();
    const NoteSerialization notes(serializer);
    const std::pair<const char*, const char*> rows[] = {
        {"{", "byte 1: "},
        {"[]", "expected an object but found an array"},
        {"{}", "type: expected a string but found null or nothing"},
        {R"({"type":7})", "type: expected a string but found the integer 7"},
        {R"({"type":"Nothing"})", "type: unknown message type \"Nothing\""},
        {R"({"type":"Note"})", "text: expected a string but found null or nothing"},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(failure([&] { serializer->read(text); }).substr(0, std::string(expected).size()), expected);
    EXPECT_EQ(failure([&] { serializer->write(Unknown()); }), "messages of the type \"ReadOnly\" are only read");
}

TEST(JsonSerializer, LaterRegistrationsOutliveEarlierOnes)
{
    const auto serializer = std::make_shared<JsonSerializerImpl>();
    auto first = std::make_unique<NoteSerialization>(serializer);
    auto second = std::make_unique<NoteSerialization>(serializer, "!");
    first.reset();
    EXPECT_EQ(serializer->write(Note("a")), R"({"text":"a!","type":"Note"})");
    second.reset();
    EXPECT_FALSE(serializer->knows("Note"));
    EXPECT_NE(failure([&] { serializer->write(Note("a")); }), "accepted");
}

class JsonServices : public testing::Test
{
protected:
    JsonServices()
    {
        connector_->addServiceProvider("serialize", std::make_shared<JsonSerializerServiceProvider>(serializer_));
        connector_->addServiceProvider("deserialize", std::make_shared<JsonDeserializerServiceProvider>(serializer_));
    }

    std::unique_ptr<Message> ask(std::unique_ptr<Message> message, Address address)
    {
        return connector_->handle(std::move(message), std::move(address), connector_->newContext()).get();
    }

    std::shared_ptr<ConnectorImpl2> connector_ = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<JsonSerializerImpl> serializer_ = std::make_shared<JsonSerializerImpl>();
    NoteSerialization notes_{serializer_};
};

TEST_F(JsonServices, AnswerOrHandOnWhatTheyMade)
{
    const std::string text = R"({"text":"a","type":"Note"})";
    const auto json = ask(std::make_unique<SerializeMessage>(std::make_unique<Note>("a")), Address("serialize"));
    EXPECT_EQ(dynamic_cast<JsonMessage&>(*json).text, text);
    EXPECT_EQ(dynamic_cast<Note&>(*ask(std::make_unique<JsonMessage>(text), Address("deserialize"))).text, "a");
    const auto both =
        ask(std::make_unique<SerializeMessage>(std::make_unique<Note>("b")), Address("serialize", "deserialize"));
    EXPECT_EQ(dynamic_cast<Note&>(*both).text, "b");
}

TEST_F(JsonServices, FailuresAreFuturesThatFailed)
{
    EXPECT_THROW(ask(std::make_unique<JsonMessage>("["), Address("deserialize")), JsonError);
    EXPECT_THROW(ask(std::make_unique<SerializeMessage>(nullptr), Address("serialize")), JsonError);
    EXPECT_THROW(ask(std::make_unique<JsonMessage>("{}"), Address("serialize")), std::invalid_argument);
    EXPECT_THROW(ask(std::make_unique<Note>("a"), Address("serialize")), std::invalid_argument);
}

} // namespace
