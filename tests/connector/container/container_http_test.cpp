#include <thread>

#include <gtest/gtest.h>

#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/container/ContainerMessages.h"
#include "connector/container/ContainerServiceProvider.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/json/JsonSerializerImpl.h"

namespace connector::container::v1 {
namespace {

/// A body that is there as soon as somebody asks.
class Body final : public http::PendingBody
{
public:
    explicit Body(std::string text) : text_(std::move(text)) {}
    std::optional<std::uint64_t> announcedBytes() const override { return text_.size(); }
    Future<http::ReceivedBody> receive(std::uint64_t) override
    {
        const auto size = text_.size();
        return makeReadyFuture(http::ReceivedBody{std::move(text_), nullptr, size});
    }

private:
    std::string text_;
};

/// Answers with nothing, and notes the thread.
class Note final : public ContainerServiceProvider
{
public:
    MessageFuture handleRequest(std::unique_ptr<ContainerRequest>&&, Address&&, std::shared_ptr<Context>&&) override
    {
        thread = std::this_thread::get_id();
        return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<ContainerResponse>());
    }

    std::thread::id thread;
};

TEST(ContainerHttp, readsLargeBodiesOnAnotherThread)
{
    const auto connector = std::make_shared<ConnectorImpl2>("test");
    const auto serializer = std::make_shared<json::JsonSerializerImpl>();
    const ContainerJsonSerialization forms(serializer);
    const auto note = std::make_shared<Note>();
    connector->addServiceProvider("note", note);
    connector->addServiceProvider("http", std::make_shared<ContainerHttpServiceProvider>(serializer));
    const auto post = [&](const std::string& text) {
        auto request = std::make_unique<http::HttpRequest>();
        request->method = "POST";
        request->headers.add("Content-Type", "application/json");
        request->pendingBody = std::make_shared<Body>(text);
        const auto message =
            connector->handle(std::move(request), Address{"http", "note"}, connector->newContext()).get();
        return dynamic_cast<http::HttpResponse&>(*message).status;
    };
    const std::string container = R"({"type": "ContainerRequest", "id": "1", "messages": []})";
    const std::string padding(200'000, ' ');
    EXPECT_EQ(post(container), 200u);
    EXPECT_EQ(note->thread, std::this_thread::get_id()) << "a small body costs no other thread";
    EXPECT_EQ(post(padding + container), 200u);
    EXPECT_NE(note->thread, std::this_thread::get_id());
    EXPECT_EQ(post(padding + container + "x"), 400u);
}

} // namespace
} // namespace connector::container::v1
