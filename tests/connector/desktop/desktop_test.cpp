#include <gtest/gtest.h>

#include <deque>
#include <thread>

#include <boost/smart_ptr/make_shared.hpp>

#include "connector/common/TickManager.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/desktop/DesktopServiceProvider.h"

namespace connector::desktop::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

/// Writes down what it is asked; fails as it is told.
class FakeInterpreter final : public rqe::Interpreter
{
public:
    rqe::EvalResult evaluate(std::string_view, const rqe::EvalOptions&, rqe::OutputSink&) override { return {}; }
    std::vector<matrix::ArrayPtr> call(std::string_view, std::vector<matrix::ArrayPtr>, std::size_t,
                                       rqe::OutputSink&) override
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
    rqe::TaskId post(std::unique_ptr<rqe::Task> task) override
    {
        if (closed)
            throw rqe::EngineError(rqe::EngineError::Reason::closed, "over");
        tasks.emplace_back(++lastId, std::move(task));
        return lastId;
    }
    bool cancel(rqe::TaskId id) override
    {
        const auto found =
            std::find_if(tasks.begin(), tasks.end(), [&](const auto& entry) { return entry.first == id; });
        if (found == tasks.end())
            return false;
        auto task = std::move(found->second);
        tasks.erase(found);
        task->abandon(std::make_exception_ptr(rqe::EngineError(rqe::EngineError::Reason::cancelled, "gone")));
        return true;
    }
    bool interrupt() override { return false; }
    bool interrupt(rqe::TaskId) override { return false; }
    State state() const override { return State::idle; }
    std::size_t queued() const override { return tasks.size() + pretended; }
    bool onInterpreterThread() const override { return false; }
    void addListener(const std::shared_ptr<rqe::EngineListener>& added) override { listener = added; }
    void removeListener(const rqe::EngineListener*) override { listener.reset(); }

    void runOne()
    {
        auto task = std::move(tasks.front().second);
        tasks.pop_front();
        std::exception_ptr failure;
        try {
            task->run(interpreter);
        } catch (...) {
            failure = std::current_exception();
        }
        failure ? task->abandon(failure) : task->finish();
        mayHaveChanged();
    }
    /// How many tasks it took.
    std::size_t runAll()
    {
        std::size_t count = 0;
        for (; !tasks.empty() && count < 1'000; ++count)
            runOne();
        return count;
    }
    void mayHaveChanged()
    {
        if (auto known = listener.lock())
            known->variablesMayHaveChanged();
    }

    FakeInterpreter interpreter;
    std::deque<std::pair<rqe::TaskId, std::unique_ptr<rqe::Task>>> tasks;
    std::weak_ptr<rqe::EngineListener> listener;
    rqe::TaskId lastId = 0;
    std::size_t pretended = 0;
    bool closed = false;
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
    EXPECT_EQ(faultOf(send(std::make_unique<Workspace>())), "busy");
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
    EXPECT_TRUE(engine->listener.expired());
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

} // namespace
} // namespace connector::desktop::v1
