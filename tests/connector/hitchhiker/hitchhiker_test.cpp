#include <gtest/gtest.h>

#include <thread>

#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/hitchhiker/HitchhikerServiceProvider.h"
#include "connector/hitchhiker/HitchhikerWire.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonText.h"

namespace connector::hitchhiker::v1 {
namespace {

using Session = std::shared_ptr<http::HttpSession>;

Poco::JSON::Object::Ptr message(const std::string& text)
{
    auto made = json::makeObject();
    made->set("type", std::string("Note"));
    made->set("text", text);
    return made;
}

class QueueTest : public testing::Test
{
protected:
    Session newSession() { return sessions->create()->session; }

    /// The texts that wait, and how many were dropped: "a b -2".
    std::string take(const Session& session)
    {
        const auto queued = service.getQueuedMessages(session);
        std::string all;
        for (const auto& waiting : queued.messages)
            all += (all.empty() ? "" : " ") + waiting->getValue<std::string>("text").substr(0, 8);
        return queued.dropped ? all + " -" + std::to_string(queued.dropped) : all;
    }

    std::shared_ptr<http::HttpSessionManagerImpl> sessions = std::make_shared<http::HttpSessionManagerImpl>();
    HitchhikerServiceImpl::Clock::time_point now{};
    HitchhikerServiceImpl service{[this] { return now; }};
};

TEST_F(QueueTest, MessagesWaitForTheirSessionOnce)
{
    const auto first = newSession();
    const auto second = newSession();
    EXPECT_EQ(service.queueMessage(first->id(), message("a")), 1u) << "before its first answer";
    EXPECT_EQ(service.queueMessage("", message("x")), 0u) << "nobody was answered yet";
    EXPECT_EQ(take(first), "a");
    EXPECT_EQ(take(second), "");
    EXPECT_EQ(service.queueMessage("", message("b")), 2u);
    EXPECT_EQ(service.queueMessage(second->id(), message("c")), 1u);
    EXPECT_EQ(take(first), "b");
    EXPECT_EQ(take(second), "b c");
    EXPECT_EQ(take(second), "");
    EXPECT_EQ(take(nullptr), "");
}

TEST_F(QueueTest, OldestGiveWayBeyondTheBounds)
{
    const auto session = newSession();
    for (std::size_t i = 0; i < HitchhikerServiceImpl::kMaxMessages + 3; ++i)
        service.queueMessage(session->id(), message(std::to_string(i)));
    auto queued = service.getQueuedMessages(session);
    EXPECT_EQ(queued.messages.size(), HitchhikerServiceImpl::kMaxMessages);
    EXPECT_EQ(queued.messages.front()->getValue<std::string>("text"), "3");
    EXPECT_EQ(queued.dropped, 3u);

    const std::string large(HitchhikerServiceImpl::kMaxSessionBytes / 3, 'x');
    for (const char* name : {"first   ", "second  ", "third   "})
        service.queueMessage(session->id(), message(name + large));
    EXPECT_EQ(take(session), "second   third    -1");
    EXPECT_EQ(take(session), "") << "said once";

    EXPECT_THROW(service.queueMessage(session->id(), message(large + large + large)), std::invalid_argument);
    EXPECT_THROW(service.queueMessage(std::string(65, 'x'), message("a")), std::invalid_argument);
}

TEST_F(QueueTest, NobodyFillsTheMemory)
{
    const auto session = newSession();
    for (std::size_t i = 0; i < HitchhikerServiceImpl::kMaxSessions; ++i)
        service.queueMessage("unknown" + std::to_string(i), message("a"));
    EXPECT_THROW(service.queueMessage("another", message("a")), ServiceFault);
    EXPECT_EQ(take(session), "");
    EXPECT_EQ(service.queueMessage(session->id(), message("b")), 1u) << "a live session finds room";
    EXPECT_EQ(take(session), "b");
    now += HitchhikerServiceImpl::kLife;
    EXPECT_EQ(service.queueMessage("another", message("a")), 1u);

    HitchhikerServiceImpl other;
    const std::string large(HitchhikerServiceImpl::kMaxSessionBytes - 100, 'x');
    const auto fit = HitchhikerServiceImpl::kMaxBytes / HitchhikerServiceImpl::kMaxSessionBytes;
    for (std::size_t i = 0; i < fit; ++i)
        other.queueMessage("s" + std::to_string(i), message(large));
    EXPECT_THROW(other.queueMessage("one more", message(large)), ServiceFault);
}

TEST_F(QueueTest, MessagesGoWithTheSessionAndWithTime)
{
    const auto ended = newSession();
    const auto idle = newSession();
    for (const auto& session : {ended, idle}) {
        take(session);
        service.queueMessage(session->id(), message("a"));
    }
    sessions->end(ended->id());
    EXPECT_EQ(service.queueMessage(ended->id(), message("b")), 0u);
    EXPECT_EQ(service.queueMessage("", message("c")), 1u);
    EXPECT_EQ(take(ended), "");
    now += 100 * HitchhikerServiceImpl::kLife;
    EXPECT_EQ(service.queueMessage("", message("d")), 1u);
    EXPECT_EQ(service.queueMessage(idle->id(), message("e")), 1u);
    EXPECT_EQ(take(idle), "a c d e") << "the session lives, however idle";
    sessions->end(idle->id());
    EXPECT_EQ(service.queueMessage("", message("f")), 0u);
}

TEST_F(QueueTest, SessionThatNothingWaitsForGivesUpItsPlace)
{
    sessions->setLimits(std::chrono::hours(1), 2 * HitchhikerServiceImpl::kMaxSessions);
    std::vector<Session> all;
    for (std::size_t i = 0; i < HitchhikerServiceImpl::kMaxSessions; ++i) {
        all.push_back(newSession());
        take(all.back());
        now += std::chrono::seconds(1);
    }
    service.queueMessage(all[0]->id(), message("kept"));
    const auto late = newSession();
    take(late);
    EXPECT_EQ(service.queueMessage(late->id(), message("a")), 1u) << "it took the place of all[1]";
    EXPECT_EQ(service.queueMessage("", message("b")), HitchhikerServiceImpl::kMaxSessions);
    EXPECT_EQ(take(all[0]), "kept b");
    now += std::chrono::seconds(1);
    EXPECT_EQ(take(late), "a b");
    EXPECT_EQ(take(all[1]), "") << "it is back in the place of all[0]";
    EXPECT_EQ(service.queueMessage("", message("c")), HitchhikerServiceImpl::kMaxSessions);
    EXPECT_EQ(take(all[0]), "") << "something waits for every session that has a place";
    EXPECT_EQ(take(all[1]), "c");
}

TEST_F(QueueTest, EveryMessageIsTakenOnceByWhicheverThread)
{
    const auto session = newSession();
    std::atomic<std::size_t> taken{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> takers;
    for (int i = 0; i < 2; ++i)
        takers.emplace_back([&] {
            while (!done) {
                const auto queued = service.getQueuedMessages(session);
                taken += queued.messages.size() + queued.dropped;
            }
        });
    for (int i = 0; i < 2'000; ++i)
        service.queueMessage(session->id(), message("a"));
    done = true;
    for (auto& taker : takers)
        taker.join();
    const auto rest = service.getQueuedMessages(session);
    EXPECT_EQ(taken + rest.messages.size() + rest.dropped, 2'000u);
}

/// Containers as JSON through a dispatcher, for a client with or without a session.
class HitchhikerTest : public testing::Test
{
protected:
    HitchhikerTest()
    {
        connector->addServiceProvider(
            "connector/v1/container",
            std::make_shared<container::v1::ContainerDispatcherServiceProviderImpl>(dispatcher));
        connector->addServiceProvider("connector/v1/hitchhikerContainer",
                                      std::make_shared<HitchhikerContainerServiceProvider>(service));
    }

    std::string send(const std::string& json, const Session& of, bool bare = false, bool gone = false)
    {
        auto request = serializer->read(json);
        dynamic_cast<container::v1::ContainerRequest&>(*request).bare = bare;
        auto context = connector->newContext();
        context->setHttpSession(of);
        if (gone)
            context->cancellation()->cancel();
        auto answer =
            connector->handle(std::move(request), Address{"connector/v1/container"}, std::move(context)).get();
        return serializer->write(*answer);
    }

    static std::string queue(const std::string& members)
    {
        return R"({"type": "ContainerRequest", "id": "c", "messages": [{"type": "QueueHitchhiker", "id": "q", )" +
               members + "}]}";
    }

    const std::string nothing = R"({"type": "ContainerRequest", "id": "c", "messages": []})";
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<container::v1::ContainerDispatcherImpl> dispatcher =
        std::make_shared<container::v1::ContainerDispatcherImpl>();
    std::shared_ptr<HitchhikerServiceImpl> service = std::make_shared<HitchhikerServiceImpl>();
    std::shared_ptr<json::JsonSerializerImpl> serializer = std::make_shared<json::JsonSerializerImpl>();
    container::v1::ContainerJsonSerialization containerTypes{serializer};
    HitchhikerJsonSerialization types{serializer};
    std::unique_ptr<HitchhikerMessageMapProvider> mapping =
        std::make_unique<HitchhikerMessageMapProvider>(dispatcher, Address{"connector/v1/hitchhikerContainer"});
    std::shared_ptr<http::HttpSessionManagerImpl> sessions = std::make_shared<http::HttpSessionManagerImpl>();
    Session session = sessions->create()->session;
};

TEST_F(HitchhikerTest, MessageRidesOnTheNextAnswer)
{
    const std::string ride = R"("message": {"type": "Fault", "code": "x", "more": [1, 2.0]})";
    const std::string empty = R"({"id":"c","messages":[],"type":"ContainerResponse"})";
    EXPECT_NE(send(queue(R"("session": ")" + session->id() + R"(", )" + ride), nullptr).find(R"("sessions":1)"),
              std::string::npos);
    EXPECT_EQ(send(nothing, nullptr), empty);
    EXPECT_EQ(send(nothing, sessions->create()->session), empty);
    EXPECT_EQ(send(nothing, session, true), empty) << "no room in a bare answer";
    EXPECT_EQ(send(nothing, session, false, true), empty) << "the client went away";
    EXPECT_EQ(
        send(nothing, session),
        R"({"id":"c","messages":[{"message":{"type":"Fault","code":"x","more":[1,2.0]},"type":"Hitchhiker","id":""}],)"
        R"("type":"ContainerResponse"})");
    EXPECT_EQ(send(nothing, session), empty);

    const std::string own = send(queue(R"("allSessions": true, )" + ride), session);
    EXPECT_NE(own.find(R"("sessions":2)"), std::string::npos) << own;
    EXPECT_NE(own.find(R"("type":"Hitchhiker","id":"")"), std::string::npos) << "on the answer itself: " << own;

    mapping.reset();
    send(queue(R"("allSessions": true, )" + ride), session);
    service->queueMessage(session->id(), message("left"));
    EXPECT_EQ(send(nothing, session), empty) << "the mapping took its address back";
}

TEST_F(HitchhikerTest, DroppedMessagesAreSaid)
{
    for (std::size_t i = 0; i < HitchhikerServiceImpl::kMaxMessages + 2; ++i)
        service->queueMessage(session->id(), message("a"));
    const std::string answer = send(nothing, session);
    EXPECT_NE(answer.find(R"("dropped":2)"), std::string::npos) << answer.substr(0, 200);
    EXPECT_EQ(answer.find("dropped"), answer.rfind("dropped"));
}

TEST_F(HitchhikerTest, WrongRequestsNameWhatIsWrong)
{
    for (const auto& [members, why] : std::vector<std::pair<std::string, std::string>>{
             {R"("message": {"type": "Fault"})", "session"},
             {R"("session": "s", "allSessions": true, "message": {"type": "Fault"})", "session"},
             {R"("session": "s")", "message: expected an object"},
             {R"("session": "s", "message": {})", "message.type: expected a string"},
             {R"("session": "s", "message": {"type": "Nonsense"})", "message.type: unknown message type"},
             {R"("session": "s", "message": {"type": "Fault", "x": ")" + std::string(300'000, 'x') + "\"}", "too long"},
         }) {
        const auto answer = send(queue(members), nullptr);
        EXPECT_NE(answer.find(R"("type":"Fault")"), std::string::npos) << members.substr(0, 80);
        EXPECT_NE(answer.find(why), std::string::npos) << answer.substr(0, 300);
    }
}

} // namespace
} // namespace connector::hitchhiker::v1
