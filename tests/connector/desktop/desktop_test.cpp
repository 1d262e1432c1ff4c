#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include <boost/smart_ptr/make_shared.hpp>

#include "connector/common/TickManager.h"
#include "connector/container/ContainerMessages.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/desktop/DesktopServiceProvider.h"
#include "platform/rqe/MessageBus.h"

namespace connector::desktop::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

/// Writes down what it is asked; fails as it is told.
class FakeInterpreter final : public rqe::Interpreter
{
public:
    rqe::EvalResult evaluate(std::string_view, const rqe::EvalOptions&, rqe::OutputSink&) override { return {}; }
    std::vector<matrix::ArrayPtr> call(std::string_view, rqe::Arguments, std::size_t, rqe::OutputSink&) override
    {
        return {};
    }
    matrix::ArrayPtr getVariable(std::string_view) override { return nullptr; }
    void setVariable(std::string_view name, const vxArray&) override { note("set " + std::string(name)); }
    bool clearVariable(std::string_view name) override { return note("clear " + std::string(name)); }
    std::vector<rqe::VariableInfo> listVariables() override { return {}; }
    rqe::WorkspacePage listVariables(std::string_view pattern, std::size_t, std::size_t) override
    {
        note("list " + std::string(pattern));
        return {};
    }
    rqe::ValueView inspect(const rqe::ValueQuery& query) override
    {
        note("inspect " + query.name);
        return {};
    }
    void setInside(std::string_view name, const rqe::Path&, const vxArray&) override
    {
        note("set inside " + std::string(name));
    }
    rqe::VariableChanges changesSince(std::string_view token) override
    {
        note("changes");
        rqe::VariableChanges changes;
        changes.token = std::to_string(revision);
        changes.restarted = token == "none";
        if (!token.empty() && token != changes.token)
            changes.changed.push_back("x");
        return changes;
    }
    rqe::Completions complete(std::string_view text, std::size_t cursor) override
    {
        note("complete " + std::string(text.substr(0, cursor)));
        return {cursor - 1, {"one", "two", "three"}};
    }
    std::vector<std::string> searchPath() override { return {}; }
    void setSearchPath(const std::vector<std::string>&) override {}
    std::string currentFolder() override { return "/here"; }
    void setCurrentFolder(std::string_view folder) override { note("enter " + std::string(folder)); }
    std::vector<std::string> saveWorkspace(std::string_view, const std::vector<std::string>&) override { return {}; }
    std::vector<std::string> loadWorkspace(std::string_view) override { return {}; }

    std::vector<std::string> asked;
    std::exception_ptr failure;
    int revision = 1;

private:
    bool note(std::string what)
    {
        asked.push_back(std::move(what));
        if (failure)
            std::rethrow_exception(failure);
        return true;
    }
};

/// Runs its tasks when the test says so, and tells its listener as a real one does.
class SteppedEngine final : public rqe::RQE
{
public:
    using Tasks = std::deque<std::pair<rqe::TaskId, std::unique_ptr<rqe::Task>>>;

    rqe::TaskId post(std::unique_ptr<rqe::Task> task) override { return add(tasks, std::move(task)); }
    rqe::TaskId look(std::unique_ptr<rqe::Task> task) override { return add(busy ? aside : tasks, std::move(task)); }
    bool cancel(rqe::TaskId id) override
    {
        auto task = take(tasks, id);
        if (!task)
            task = take(aside, id);
        if (!task)
            return false;
        task->abandon(std::make_exception_ptr(rqe::EngineError(rqe::EngineError::Reason::cancelled, "gone")));
        return true;
    }
    bool interrupt() override { return false; }
    bool interrupt(rqe::TaskId) override { return false; }
    State state() const override { return busy ? State::busy : State::idle; }
    std::size_t queued() const override { return waiting() + pretended; }
    bool onInterpreterThread() const override { return onThread; }
    void addListener(const std::shared_ptr<rqe::EngineListener>& added) override { listeners.push_back(added); }
    void removeListener(const rqe::EngineListener* removed) override
    {
        std::erase_if(listeners, [&](const auto& known) { return known.lock().get() == removed; });
    }

    std::size_t waiting() const
    {
        std::lock_guard lock(mutex);
        return tasks.size();
    }
    void runOne(bool beside = false)
    {
        auto& from = beside ? aside : tasks;
        std::unique_lock lock(mutex);
        auto task = std::move(from.front().second);
        from.pop_front();
        lock.unlock();
        onThread = !beside;
        std::exception_ptr failure;
        try {
            task->run(interpreter);
        } catch (...) {
            failure = std::current_exception();
        }
        failure ? task->abandon(failure) : task->finish();
        if (!beside)
            mayHaveChanged();
    }
    /// How many tasks it took.
    std::size_t runAll()
    {
        std::size_t count = 0;
        for (; waiting() > 0 && count < 1'000; ++count)
            runOne();
        return count;
    }
    void mayHaveChanged() { tell(&rqe::EngineListener::variablesMayHaveChanged); }
    template <class Call, class... Arguments>
    void tell(Call call, Arguments... arguments)
    {
        for (const auto& listener : listeners)
            if (auto known = listener.lock())
                ((*known).*call)(arguments...);
    }

    FakeInterpreter interpreter;
    mutable std::mutex mutex; ///< ticks post, too
    Tasks tasks;
    Tasks aside; ///< the looking thread's
    std::vector<std::weak_ptr<rqe::EngineListener>> listeners;
    rqe::TaskId lastId = 0;
    std::size_t pretended = 0;
    bool closed = false;
    std::atomic<bool> busy = false;
    bool onThread = true;

private:
    rqe::TaskId add(Tasks& to, std::unique_ptr<rqe::Task> task)
    {
        if (closed)
            throw rqe::EngineError(rqe::EngineError::Reason::closed, "over");
        std::lock_guard lock(mutex);
        to.emplace_back(++lastId, std::move(task));
        return lastId;
    }
    std::unique_ptr<rqe::Task> take(Tasks& from, rqe::TaskId id)
    {
        std::lock_guard lock(mutex);
        const auto found = std::find_if(from.begin(), from.end(), [&](const auto& entry) { return entry.first == id; });
        if (found == from.end())
            return nullptr;
        auto task = std::move(found->second);
        from.erase(found);
        return task;
    }
};

/// Notes what it is told.
class NotingBus final : public rqe::MessageBus
{
public:
    void publish(const std::string&, const std::string&, const GoOn&) override { ADD_FAILURE() << "It would wait."; }
    bool isReserved(const std::string&) const override { return true; }
    void tell(const std::string& channel, const std::string& json) override
    {
        std::lock_guard lock(mutex_);
        told_.push_back(channel + " " + json);
        changed_.notify_all();
    }
    bool hasSubscribers(const std::string& channel) const override
    {
        std::lock_guard lock(mutex_);
        return subscribed_.contains(channel);
    }
    std::function<void()> subscribe(const std::string& channel, Receiver) override
    {
        std::lock_guard lock(mutex_);
        subscribed_.insert(channel);
        return [] {};
    }
    std::function<void()> serve(const std::string&, Server) override { return unused(); }
    std::function<void()> rule(const std::string&, const rqe::ChannelRule&) override { return unused(); }
    std::vector<rqe::BusSession> sessions() const override { return {}; }
    bool endSession(const std::string&) override { return false; }
    void unsubscribe(const std::string& channel)
    {
        std::lock_guard lock(mutex_);
        subscribed_.erase(channel);
    }
    /// The next one, "" when none comes.
    std::string next()
    {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(10), [this] { return !told_.empty(); }))
            return {};
        auto first = std::move(told_.front());
        told_.pop_front();
        return first;
    }
    bool isSilent() const
    {
        std::lock_guard lock(mutex_);
        return told_.empty();
    }

private:
    static std::function<void()> unused()
    {
        ADD_FAILURE() << "The desktop serves clients in another way.";
        return [] {};
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::string> subscribed_;
    std::deque<std::string> told_;
};

template <class M>
std::unique_ptr<M> named(const char* name)
{
    auto message = std::make_unique<M>();
    message->name = name;
    return message;
}

std::unique_ptr<SetVariable> setting(rqe::Path path)
{
    auto message = named<SetVariable>("v");
    message->path = std::move(path);
    message->value = matrix::createScalar(1.0);
    return message;
}

std::unique_ptr<TabCompletion> completing(std::string text, std::optional<std::size_t> cursor)
{
    auto message = std::make_unique<TabCompletion>();
    message->text = std::move(text);
    message->cursor = cursor;
    message->limit = 2;
    return message;
}

std::unique_ptr<VariableChange> watching(std::string since, std::chrono::milliseconds wait)
{
    auto message = std::make_unique<VariableChange>();
    message->since = std::move(since);
    message->wait = wait;
    return message;
}

class DesktopTest : public testing::Test
{
protected:
    void SetUp() override { serve(engine); }
    void TearDown() override
    {
        connector->removeServiceProvider("desktop");
        common::TickManager::destructInstance();
        rqe::ProcessBus::setBus(nullptr);
    }

    void serve(const boost::shared_ptr<rqe::RQE>& with)
    {
        connector->addServiceProvider("desktop", std::make_shared<DesktopServiceProviderImpl>(with));
    }
    MessageFuture send(MessagePtr message, std::shared_ptr<Context> context = nullptr)
    {
        return connector->handle(std::move(message), Address{"desktop"}, context ? context : connector->newContext());
    }
    static std::string faultOf(MessageFuture future)
    {
        try {
            future.get();
        } catch (const ServiceFault& fault) {
            return fault.code();
        } catch (const std::invalid_argument&) {
            return "badRequest";
        }
        return "no fault";
    }
    static rqe::VariableChanges changesOf(MessageFuture future)
    {
        const auto answer = future.get();
        return dynamic_cast<VariableChangeResponse&>(*answer).changes;
    }
    static std::vector<MessagePtr> oneOfEach()
    {
        std::vector<MessagePtr> messages;
        messages.push_back(std::make_unique<Workspace>());
        messages.push_back(std::make_unique<Variable>());
        messages.push_back(setting({}));
        messages.push_back(setting({std::int64_t{1}}));
        messages.push_back(named<ClearVariable>("v"));
        messages.push_back(std::make_unique<VariableChange>());
        messages.push_back(completing("ab", {}));
        auto folder = std::make_unique<CurrentFolder>();
        folder->path = "there";
        messages.push_back(std::move(folder));
        return messages;
    }

    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    boost::shared_ptr<SteppedEngine> engine = boost::make_shared<SteppedEngine>();
};

TEST_F(DesktopTest, NothingWorksWithoutAnEngine)
{
    serve(nullptr);
    for (auto& message : oneOfEach())
        EXPECT_EQ(faultOf(send(std::move(message))), "unavailable");
    serve(engine);
    engine->closed = true;
    EXPECT_EQ(faultOf(send(std::make_unique<Workspace>())), "unavailable");
    engine->pretended = 1'000;
    EXPECT_EQ(faultOf(send(named<ClearVariable>("v"))), "busy");
}

TEST_F(DesktopTest, RequestsRunInTheOrderOfArrival)
{
    std::vector<MessageFuture> futures;
    for (auto& message : oneOfEach())
        futures.push_back(send(std::move(message)));
    EXPECT_FALSE(futures.front().isReady());
    EXPECT_EQ(engine->runAll(), futures.size());
    for (auto& future : futures)
        EXPECT_NE(future.get(), nullptr);
    EXPECT_EQ(engine->interpreter.asked,
              (std::vector<std::string>{"list ", "inspect ", "set v", "set inside v", "clear v", "changes",
                                        "complete ab", "enter there"}));
}

TEST_F(DesktopTest, FailuresKeepTheirMeaning)
{
    const std::pair<std::exception_ptr, const char*> cases[] = {
        {std::make_exception_ptr(std::out_of_range("no x")), "notFound"},
        {std::make_exception_ptr(std::invalid_argument("rows of a dict")), "badRequest"},
        {std::make_exception_ptr(rqe::ScriptError("ValueError", "m", "t")), "scriptError"},
        {std::make_exception_ptr(rqe::ScriptError("KeyboardInterrupt", "", "")), "interrupted"},
        {std::make_exception_ptr(rqe::UnsteadyError("changes")), "busy"},
    };
    for (const auto& [failure, code] : cases) {
        engine->interpreter.failure = failure;
        for (auto& message : oneOfEach()) {
            auto future = send(std::move(message));
            engine->runAll();
            EXPECT_EQ(faultOf(std::move(future)), code);
        }
    }
}

TEST_F(DesktopTest, RequestOfAClientThatLeftIsTakenOut)
{
    auto context = connector->newContext();
    auto waiting = send(std::make_unique<Workspace>(), context);
    context->cancellation()->cancel();
    EXPECT_TRUE(engine->tasks.empty());
    EXPECT_EQ(faultOf(std::move(waiting)), "cancelled");
}

TEST_F(DesktopTest, CompletionCountsCodePoints)
{
    struct Case
    {
        std::string text;
        std::optional<std::size_t> cursor;
        std::string before;
        std::size_t replaceFrom;
    };
    for (const Case& c :
         {Case{"äb𝒳c", 3, "äb𝒳", 3}, Case{"äb", {}, "äb", 1}, Case{"äb", 2, "äb", 1}, Case{"𝒳𝒳a", 3, "𝒳𝒳a", 2}}) {
        auto future = send(completing(c.text, c.cursor));
        engine->runAll();
        const auto answer = future.get();
        const auto& response = dynamic_cast<TabCompletionResponse&>(*answer);
        EXPECT_EQ(engine->interpreter.asked.back(), "complete " + c.before);
        EXPECT_EQ(response.replaceFrom, c.replaceFrom) << c.text;
        EXPECT_EQ(response.candidates, (std::vector<std::string>{"one", "two"}));
        EXPECT_EQ(response.total, 3u);
    }
    EXPECT_EQ(faultOf(send(completing("ä", 2))), "badRequest");
    EXPECT_EQ(faultOf(send(completing(std::string(65'537, 'x'), {}))), "badRequest");
    EXPECT_TRUE(engine->tasks.empty());
}

TEST_F(DesktopTest, WhoWaitsHearsOfTheNextChange)
{
    auto first = send(watching("1", std::chrono::seconds(30)));
    auto second = send(watching("1", std::chrono::seconds(30)));
    EXPECT_LE(engine->runAll(), 3u);
    EXPECT_FALSE(first.isReady());

    engine->mayHaveChanged(); // in vain
    EXPECT_EQ(engine->runAll(), 1u) << "a look must not cause the next one";
    EXPECT_FALSE(first.isReady());

    engine->interpreter.revision = 2;
    const auto looks = engine->interpreter.asked.size();
    engine->mayHaveChanged();
    engine->mayHaveChanged();
    EXPECT_EQ(engine->runAll(), 1u) << "one look for many hints";
    EXPECT_EQ(engine->interpreter.asked.size(), looks + 1) << "and one comparison for all who wait";
    for (auto* future : {&first, &second}) {
        ASSERT_TRUE(future->isReady());
        const auto changes = changesOf(std::move(*future));
        EXPECT_EQ(changes.token, "2");
        EXPECT_EQ(changes.changed, std::vector<std::string>{"x"});
    }
    engine->mayHaveChanged();
    EXPECT_EQ(engine->runAll(), 0u) << "nobody waits, nothing is compared";
}

TEST_F(DesktopTest, AChangeThatIsThereIsToldAtOnce)
{
    engine->interpreter.revision = 2;
    auto late = send(watching("1", std::chrono::seconds(30)));
    auto starting = send(watching("", std::chrono::seconds(30)));
    auto unwatched = send(watching("2", std::chrono::milliseconds(0)));
    engine->runAll();
    EXPECT_EQ(changesOf(std::move(late)).changed.size(), 1u);
    EXPECT_EQ(changesOf(std::move(starting)).token, "2");
    EXPECT_EQ(changesOf(std::move(unwatched)).changed.size(), 0u);
}

TEST_F(DesktopTest, WaitsEnd)
{
    auto timed = send(watching("1", std::chrono::milliseconds(20)));
    engine->runAll();
    EXPECT_FALSE(timed.isReady());
    const auto none = changesOf(std::move(timed));
    EXPECT_EQ(none.token, "1");
    EXPECT_TRUE(none.changed.empty());

    auto context = connector->newContext();
    auto left = send(watching("1", std::chrono::seconds(30)), context);
    engine->runAll();
    context->cancellation()->cancel();
    EXPECT_EQ(faultOf(std::move(left)), "cancelled");

    auto stopped = send(watching("1", std::chrono::seconds(30)));
    engine->runAll();
    connector->removeServiceProvider("desktop");
    EXPECT_EQ(faultOf(std::move(stopped)), "unavailable");
    EXPECT_TRUE(engine->listeners.empty());
}

TEST_F(DesktopTest, TheNumberOfWaitersIsBounded)
{
    std::vector<MessageFuture> waiting;
    for (int i = 0; i < 101; ++i)
        waiting.push_back(send(watching("1", std::chrono::seconds(30))));
    engine->runAll();
    EXPECT_EQ(faultOf(std::move(waiting.back())), "busy");
    EXPECT_EQ(faultOf(send(watching("1", std::chrono::seconds(30)))), "busy");
    auto asking = send(watching("", std::chrono::milliseconds(0)));
    engine->runAll();
    EXPECT_EQ(faultOf(std::move(asking)), "no fault");
}

TEST_F(DesktopTest, AnInterruptedLookIsMadeUpFor)
{
    auto waiting = send(watching("1", std::chrono::seconds(30)));
    engine->runAll();
    engine->interpreter.failure = std::make_exception_ptr(rqe::ScriptError("KeyboardInterrupt", "", ""));
    engine->interpreter.revision = 2;
    engine->mayHaveChanged();
    engine->runAll();
    EXPECT_FALSE(waiting.isReady());
    engine->interpreter.failure = nullptr;
    engine->mayHaveChanged();
    engine->runAll();
    EXPECT_EQ(changesOf(std::move(waiting)).changed.size(), 1u);
}

TEST_F(DesktopTest, OnlyLooksAreAnsweredBesideWhatRuns)
{
    engine->busy = true;
    std::vector<MessageFuture> looks;
    looks.push_back(send(std::make_unique<Workspace>()));
    looks.push_back(send(std::make_unique<Variable>()));
    looks.push_back(send(completing("ab", {})));
    auto change = send(setting({}));
    EXPECT_EQ(engine->aside.size(), 3u);
    EXPECT_EQ(engine->waiting(), 1u);
    for (auto& look : looks) {
        engine->runOne(true);
        EXPECT_NE(look.get(), nullptr);
    }
    EXPECT_FALSE(change.isReady());
}

TEST_F(DesktopTest, InAContainerLooksWaitForWhatTheySee)
{
    auto container = std::make_unique<container::v1::ContainerRequest>();
    const auto add = [&](MessagePtr message) { container->entries.push_back({"", "", std::move(message), nullptr}); };
    add(std::make_unique<Workspace>());
    add(completing("ab", {}));
    add(setting({}));
    add(std::make_unique<Workspace>());
    auto answer = send(std::move(container)).get();
    auto& passed = dynamic_cast<container::v1::ContainerRequest&>(*answer);
    engine->busy = true;
    std::vector<MessageFuture> sent;
    for (auto& entry : passed.entries)
        sent.push_back(send(std::move(entry.message)));
    EXPECT_EQ(engine->aside.size(), 2u);
    engine->runAll();
    EXPECT_EQ(engine->interpreter.asked, (std::vector<std::string>{"set v", "list "}));
    engine->runOne(true);
    engine->runOne(true);
}

TEST_F(DesktopTest, ALookThatCannotBeginIsAnsweredAndTakenOut)
{
    engine->busy = true;
    auto stuck = send(std::make_unique<Workspace>());
    auto begun = send(std::make_unique<Workspace>());
    EXPECT_EQ(faultOf(std::move(stuck)), "busy");
    const auto isEmpty = [this] {
        std::lock_guard lock(engine->mutex);
        return engine->aside.empty();
    };
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         !isEmpty() && std::chrono::steady_clock::now() < end;)
        std::this_thread::yield();
    EXPECT_TRUE(isEmpty());
    EXPECT_EQ(faultOf(std::move(begun)), "busy");
}

TEST_F(DesktopTest, SubscribersOfTheBusHearOfChanges)
{
    const auto bus = std::make_shared<NotingBus>();
    rqe::ProcessBus::setBus(bus);
    engine->mayHaveChanged();
    EXPECT_EQ(engine->waiting(), 0u) << "nobody listens";

    bus->subscribe("/interpreter/variables", {});
    engine->mayHaveChanged();
    EXPECT_EQ(engine->runAll(), 1u);
    EXPECT_EQ(bus->next(), R"(/interpreter/variables {"token":"1","changed":["x"],"removed":[],"restarted":true})");

    for (int i = 0; i < 100; ++i) {
        engine->interpreter.revision = 2 + i;
        engine->mayHaveChanged();
        engine->runAll();
    }
    while (bus->isSilent())
        engine->runAll(); // what a tick posts
    // In as many messages as there were gaps, which is what a slow machine may need for the loop.
    std::string last = bus->next();
    while (last.find(R"("token":"101")") == std::string::npos) {
        ASSERT_NE(last, "");
        while (bus->isSilent())
            engine->runAll();
        last = bus->next();
    }
    EXPECT_EQ(last, R"(/interpreter/variables {"token":"101","changed":["x"],"removed":[]})");

    bus->unsubscribe("/interpreter/variables");
    engine->mayHaveChanged();
    EXPECT_EQ(engine->waiting(), 0u);
}

TEST_F(DesktopTest, SubscribersOfTheBusHearOfTheFolderAndOfLongWork)
{
    const auto bus = std::make_shared<NotingBus>();
    rqe::ProcessBus::setBus(bus);
    engine->tell(&rqe::EngineListener::folderChanged, "/unheard");
    bus->subscribe("/interpreter/folder", {});
    bus->subscribe("/interpreter/state", {});
    engine->tell(&rqe::EngineListener::folderChanged, "/data");
    EXPECT_EQ(bus->next(), R"(/interpreter/folder {"folder":"/data"})");

    engine->tell(&rqe::EngineListener::workBegins);
    engine->mayHaveChanged();
    EXPECT_TRUE(bus->isSilent()) << "short work is no news";
    engine->busy = true;
    engine->tell(&rqe::EngineListener::workBegins);
    EXPECT_EQ(bus->next(), R"(/interpreter/state {"state":"busy","queued":0})");
    auto waiting = send(setting({}));
    EXPECT_EQ(bus->next(), R"(/interpreter/state {"state":"busy","queued":1})");
    engine->busy = false;
    engine->runAll();
    EXPECT_EQ(bus->next(), R"(/interpreter/state {"state":"idle","queued":0})");

    // Work that began before anybody listened, and somebody who comes while it goes on.
    bus->unsubscribe("/interpreter/state");
    engine->busy = true;
    engine->tell(&rqe::EngineListener::workBegins);
    bus->subscribe("/interpreter/state", {});
    auto listed = send(std::make_unique<Workspace>());
    EXPECT_EQ(bus->next().substr(0, 34), R"(/interpreter/state {"state":"busy")");
    auto again = send(std::make_unique<Workspace>());
    EXPECT_EQ(bus->next().substr(0, 34), R"(/interpreter/state {"state":"busy")");
    engine->busy = false;
    engine->runAll();
    std::string last = bus->next();
    while (last.find("busy") != std::string::npos)
        last = bus->next();
    EXPECT_EQ(last, R"(/interpreter/state {"state":"idle","queued":0})");
}

} // namespace
} // namespace connector::desktop::v1
