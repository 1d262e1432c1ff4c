#include "platform/rqe/LocalRQE.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace rqe;

namespace {

/// An interpreter that no task of these tests uses for anything but its presence.
class NoInterpreter : public Interpreter
{
public:
    EvalResult evaluate(std::string_view, const EvalOptions&, OutputSink&) override { return {}; }
    std::vector<matrix::ArrayPtr> call(std::string_view, rqe::Arguments, std::size_t, OutputSink&) override
    {
        return {};
    }
    matrix::ArrayPtr getVariable(std::string_view) override { return nullptr; }
    void setVariable(std::string_view, const vxArray&) override {}
    bool clearVariable(std::string_view) override { return false; }
    std::vector<VariableInfo> listVariables() override { return {}; }
    WorkspacePage listVariables(std::string_view, std::size_t, std::size_t) override { return {}; }
    ValueView inspect(const ValueQuery&) override { return {}; }
    void setInside(std::string_view, const Path&, const vxArray&) override {}
    VariableChanges changesSince(std::string_view) override { return {}; }
    Completions complete(std::string_view, std::size_t) override { return {}; }
    std::vector<std::string> searchPath() override { return {}; }
    void setSearchPath(const std::vector<std::string>&) override {}
    std::string currentFolder() override { return {}; }
    void setCurrentFolder(std::string_view) override {}
    std::vector<std::string> saveWorkspace(std::string_view, const std::vector<std::string>&) override { return {}; }
    std::vector<std::string> loadWorkspace(std::string_view) override { return {}; }
};

class FakeHost : public LanguageHost
{
public:
    void withInterpreter(const std::function<void(Interpreter&)>& body) override
    {
        if (refuse)
            throw std::runtime_error("no interpreter");
        locked = true;
        body(interpreter);
        locked = false;
    }
    void withLook(const std::function<void(Interpreter&)>& body) override
    {
        ++waitingLooks;
        std::lock_guard lock(looking);
        --waitingLooks;
        body(interpreter);
    }
    void breakRunning() override { ++breaks; }
    void discardBreak() override
    {
        EXPECT_TRUE(locked);
        discarded += breaks.exchange(0);
    }

    NoInterpreter interpreter;
    bool locked = false;
    bool refuse = false;
    std::mutex looking; ///< the language's lock, as the looking thread has it
    std::atomic<int> waitingLooks = 0;
    std::atomic<int> breaks = 0; ///< interrupts that nothing took yet
    int discarded = 0;
};

using Log = std::vector<std::string>;

std::string textOf(const std::exception_ptr& error)
{
    try {
        std::rethrow_exception(error);
    } catch (const EngineError& e) {
        return "engine " + std::to_string(static_cast<int>(e.reason())) + ": " + e.what();
    } catch (const std::exception& e) {
        return e.what();
    }
}

/// Writes what happens to it into a log.
class LoggingTask : public Task
{
public:
    LoggingTask(Log& log, std::string name, std::function<void()> body = {}) : log_(log), name_(name), body_(body) {}
    ~LoggingTask() override { log_.push_back(name_ + " deleted"); }
    void run(Interpreter&) override
    {
        log_.push_back(name_ + " run");
        if (body_)
            body_();
    }
    const std::string& client() const noexcept override { return name_; }
    std::string about() const override { return "about " + name_; }
    void finish() noexcept override { log_.push_back(name_ + " finish"); }
    void abandon(std::exception_ptr reason) noexcept override { log_.push_back(name_ + " abandon: " + textOf(reason)); }

private:
    Log& log_;
    std::string name_;
    std::function<void()> body_;
};

/// How a look ends: where it ran and whether an interrupt could reach it there, or why it did not run.
class Look : public Task
{
public:
    struct Outcome
    {
        std::thread::id thread;
        bool takesInterrupts = false;
        std::string abandoned;
    };

    std::future<Outcome> outcome() { return promise_.get_future(); }
    void run(Interpreter&) override
    {
        sigset_t mask;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        outcome_ = {std::this_thread::get_id(), ::sigismember(&mask, SIGINT) == 0, ""};
    }
    void finish() noexcept override { promise_.set_value(outcome_); }
    void abandon(std::exception_ptr reason) noexcept override { promise_.set_value({{}, false, textOf(reason)}); }

private:
    Outcome outcome_;
    std::promise<Outcome> promise_;
};

bool readable(int descriptor)
{
    pollfd waited{descriptor, POLLIN, 0};
    return ::poll(&waited, 1, 0) == 1;
}

class LocalRQETest : public testing::Test
{
protected:
    TaskId post(const std::string& name, std::function<void()> body = {})
    {
        return engine->post(std::make_unique<LoggingTask>(log, name, std::move(body)));
    }
    std::future<Look::Outcome> look(TaskId* id = nullptr)
    {
        auto task = std::make_unique<Look>();
        auto outcome = task->outcome();
        const TaskId number = engine->look(std::move(task));
        if (id)
            *id = number;
        return outcome;
    }
    static Look::Outcome endOf(std::future<Look::Outcome>& look)
    {
        if (look.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
            throw std::runtime_error("The look does not end.");
        return look.get();
    }
    void remake(std::size_t capacity) { engine = boost::make_shared<LocalRQE>(host, capacity); }

    FakeHost host;
    Log log;
    boost::shared_ptr<LocalRQE> engine = boost::make_shared<LocalRQE>(host);
};

TEST_F(LocalRQETest, runsInOrderAndFinishesWithTheLanguageReleased)
{
    EXPECT_FALSE(engine->runOne());
    EXPECT_FALSE(readable(engine->wakeFd()));
    std::vector<bool> locked;
    post("a", [&] {
        locked.push_back(host.locked);
        EXPECT_EQ(engine->state(), RQE::State::busy);
        EXPECT_EQ(engine->queued(), 1U);
        EXPECT_THROW(engine->runOne(), std::logic_error);
    });
    post("b");
    EXPECT_TRUE(readable(engine->wakeFd()));
    EXPECT_TRUE(engine->runOne());
    EXPECT_TRUE(readable(engine->wakeFd()));
    EXPECT_TRUE(engine->runOne());
    EXPECT_FALSE(readable(engine->wakeFd()));
    EXPECT_FALSE(host.locked);
    EXPECT_EQ(locked, std::vector<bool>{true});
    EXPECT_EQ(engine->state(), RQE::State::idle);
    EXPECT_EQ(log, (Log{"a run", "a finish", "a deleted", "b run", "b finish", "b deleted"}));
}

TEST_F(LocalRQETest, cancelTakesOnlyWhatHasNotBegun)
{
    TaskId first = 0;
    first = post("a", [&] { EXPECT_FALSE(engine->cancel(first)); });
    TaskId second = post("b");
    TaskId third = post("c");
    EXPECT_TRUE(engine->cancel(second));
    EXPECT_FALSE(engine->cancel(second));
    EXPECT_FALSE(engine->cancel(third + 1));
    EXPECT_TRUE(engine->runOne());
    EXPECT_FALSE(engine->cancel(first));
    EXPECT_TRUE(engine->cancel(third));
    EXPECT_FALSE(readable(engine->wakeFd()));
    EXPECT_EQ(log,
              (Log{"b abandon: engine 2: The task was cancelled before it began.", "b deleted", "a run", "a finish",
                   "a deleted", "c abandon: engine 2: The task was cancelled before it began.", "c deleted"}));
}

TEST_F(LocalRQETest, interruptsTheNamedTaskOnly)
{
    TaskId first = 0;
    TaskId second = 0;
    first = post("a", [&] {
        EXPECT_FALSE(engine->interrupt(second));
        EXPECT_FALSE(engine->interrupt(0));
        EXPECT_EQ(host.breaks, 0);
        EXPECT_TRUE(engine->interrupt(first));
        EXPECT_EQ(host.breaks.exchange(0), 1); // the script took it
    });
    second = post("b");
    EXPECT_FALSE(engine->interrupt());
    EXPECT_FALSE(engine->interrupt(first));
    engine->runOne();
    EXPECT_FALSE(engine->interrupt(first));
    engine->runOne();
    EXPECT_EQ(host.breaks, 0);
}

TEST_F(LocalRQETest, interruptsTheClientsOwn)
{
    post("mine", [&] {
        EXPECT_FALSE(engine->interruptClient("nobody"));
        EXPECT_EQ(host.breaks, 0);
        EXPECT_EQ(engine->aboutRunning(), "about mine");
        EXPECT_TRUE(engine->interruptClient("mine"));
        EXPECT_EQ(host.breaks.exchange(0), 1);
        // Waits behind: not run, wherever it stands. The one of the client itself stays.
        EXPECT_TRUE(engine->interruptClient("other"));
        EXPECT_FALSE(engine->interruptClient("other"));
        EXPECT_EQ(engine->queued(), 1u);
    });
    post("other");
    post("mine");
    post("other");
    EXPECT_FALSE(engine->interruptClient("other")) << "it would begin at once";
    EXPECT_EQ(engine->aboutRunning(), "");
    EXPECT_TRUE(engine->runOne());
    EXPECT_TRUE(engine->runOne());
    EXPECT_FALSE(engine->runOne());
    EXPECT_FALSE(readable(engine->wakeFd()));
    EXPECT_EQ(std::count(log.begin(), log.end(), "other abandon: engine 2: The task was interrupted before it began."),
              2);
    post("other");
    LocalRQE::ForegroundScope scope(*engine);
    EXPECT_FALSE(engine->interruptClient("mine"));
    EXPECT_TRUE(engine->interruptClient("other"));
    EXPECT_FALSE(readable(engine->wakeFd()));
    EXPECT_EQ(host.breaks, 0);
}

TEST_F(LocalRQETest, discardsAnInterruptThatCameTooLate)
{
    post("a", [&] { EXPECT_TRUE(engine->interrupt()); }); // and the task ends without noticing
    post("b", [&] { EXPECT_EQ(host.breaks, 0); });
    engine->runOne();
    EXPECT_EQ(host.discarded, 1);
    engine->runOne();
    EXPECT_EQ(host.discarded, 1);
}

TEST_F(LocalRQETest, theForegroundIsBusyAndCanBeInterrupted)
{
    {
        LocalRQE::ForegroundScope scope(*engine);
        EXPECT_EQ(engine->state(), RQE::State::busy);
        EXPECT_TRUE(engine->interrupt());
        EXPECT_FALSE(engine->interrupt(1));
        EXPECT_EQ(host.discarded, 0);
    }
    EXPECT_EQ(host.discarded, 1);
    EXPECT_EQ(engine->state(), RQE::State::idle);
    EXPECT_FALSE(engine->interrupt());
}

TEST_F(LocalRQETest, anInterruptNeverReachesTheTaskAfterTheOneItIsFor)
{
    // A client interrupts the first of each pair as fast as it can while the interpreter thread goes on to the second.
    std::atomic<TaskId> target = 0;
    std::atomic<bool> done = false;
    std::atomic<int> sent = 0;
    std::thread client([&] {
        while (!done)
            if (engine->interrupt(target.load()))
                ++sent;
    });
    for (int i = 0; i < 300; ++i) {
        log.clear();
        target = post("victim", [&, before = sent.load()] {
            for (int spin = 0; (spin < 100 || sent == 0) && sent == before; ++spin)
                std::this_thread::yield();
        });
        post("bystander", [&] { EXPECT_EQ(host.breaks, 0); });
        engine->runOne();
        engine->runOne();
    }
    done = true;
    client.join();
    EXPECT_GT(sent, 0);
}

TEST_F(LocalRQETest, whatRunThrowsReachesAbandon)
{
    post("a", [] { throw std::runtime_error("boom"); });
    engine->runOne();
    EXPECT_EQ(engine->state(), RQE::State::idle);
    host.refuse = true;
    post("b");
    engine->runOne();
    EXPECT_EQ(engine->state(), RQE::State::idle);
    EXPECT_EQ(log, (Log{"a run", "a abandon: boom", "a deleted", "b abandon: no interpreter", "b deleted"}));
}

TEST_F(LocalRQETest, refusesWhatTheQueueCannotHold)
{
    remake(2);
    post("a");
    post("b");
    try {
        post("c");
        FAIL() << "a third task was taken";
    } catch (const EngineError& error) {
        EXPECT_EQ(error.reason(), EngineError::Reason::queueFull);
        EXPECT_STREQ(error.what(), "The interpreter's queue is full: 2 tasks wait.");
    }
    EXPECT_EQ(log, Log{"c deleted"});
    engine->runOne();
    EXPECT_NO_THROW(post("d"));
}

TEST_F(LocalRQETest, closeAbandonsWhatWaitsAndRefusesWhatComes)
{
    post("a", [&] { engine->close("going down"); });
    post("b");
    engine->runOne();
    EXPECT_EQ(log, (Log{"a run", "b abandon: engine 1: going down", "b deleted", "a finish", "a deleted"}));
    EXPECT_EQ(engine->state(), RQE::State::closed);
    EXPECT_FALSE(readable(engine->wakeFd()));
    try {
        post("c");
        FAIL() << "a closed engine took a task";
    } catch (const EngineError& error) {
        EXPECT_EQ(error.reason(), EngineError::Reason::closed);
        EXPECT_STREQ(error.what(), "going down");
    }
}

TEST_F(LocalRQETest, takesTasksFromManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    struct Counted : Task
    {
        Counted(std::vector<int>& seen, int thread, int number) : seen_(seen), thread_(thread), number_(number) {}
        void run(Interpreter&) override
        {
            EXPECT_EQ(seen_[static_cast<std::size_t>(thread_)], number_); // each thread's own order holds
            ++seen_[static_cast<std::size_t>(thread_)];
        }
        void finish() noexcept override {}
        void abandon(std::exception_ptr) noexcept override { ADD_FAILURE() << "abandoned"; }
        std::vector<int>& seen_;
        int thread_;
        int number_;
    };
    std::vector<int> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            EXPECT_FALSE(engine->onInterpreterThread());
            EXPECT_THROW(engine->runOne(), std::logic_error);
            for (int i = 0; i < kEach; ++i)
                engine->post(std::make_unique<Counted>(seen, t, i));
        });
    for (int ran = 0; ran < kThreads * kEach;) {
        pollfd waited{engine->wakeFd(), POLLIN, 0};
        ASSERT_EQ(::poll(&waited, 1, 10'000), 1);
        ran += engine->runOne() ? 1 : 0;
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(seen, std::vector<int>(kThreads, kEach));
}

TEST_F(LocalRQETest, looksAreTasksWhileNothingElseRunsOrWaits)
{
    auto first = look();
    auto second = look();
    EXPECT_EQ(engine->queued(), 2U);
    engine->runOne();
    engine->runOne();
    for (auto* outcome : {&first, &second})
        EXPECT_EQ(endOf(*outcome).thread, std::this_thread::get_id());

    post("a");
    auto beside = look();
    EXPECT_NE(endOf(beside).thread, std::this_thread::get_id()) << "it would wait for the task";
    engine->runOne();
}

TEST_F(LocalRQETest, looksRunBesideATaskAndTheForeground)
{
    post("a", [&] {
        auto beside = look();
        const auto outcome = endOf(beside);
        EXPECT_NE(outcome.thread, std::this_thread::get_id());
        EXPECT_NE(outcome.thread, std::thread::id());
        EXPECT_FALSE(outcome.takesInterrupts);
        EXPECT_TRUE(engine->interrupt()); // which is the task's
    });
    engine->runOne();
    EXPECT_EQ(host.discarded, 1);

    auto stranded = look();
    LocalRQE::ForegroundScope scope(*engine);
    auto beside = look();
    EXPECT_NE(endOf(stranded).thread, std::this_thread::get_id());
    EXPECT_NE(endOf(beside).thread, std::this_thread::get_id());
    EXPECT_FALSE(readable(engine->wakeFd()));
}

TEST_F(LocalRQETest, looksThatCannotHaveTheLockAreBoundedAndCanBeCancelled)
{
    LocalRQE::ForegroundScope scope(*engine);
    std::unique_lock kept(host.looking);
    std::vector<std::future<Look::Outcome>> waiting;
    TaskId last = 0;
    for (int i = 0; i < 100; ++i)
        waiting.push_back(look(&last));
    try {
        look();
        FAIL() << "one more look was taken";
    } catch (const EngineError& error) {
        EXPECT_EQ(error.reason(), EngineError::Reason::queueFull);
    }
    EXPECT_TRUE(engine->cancel(last));
    EXPECT_FALSE(engine->cancel(last));
    EXPECT_EQ(endOf(waiting.back()).abandoned, "engine 2: The task was cancelled before it began.");
    waiting.pop_back();
    kept.unlock();
    for (auto& outcome : waiting)
        EXPECT_EQ(endOf(outcome).abandoned, "");
}

TEST_F(LocalRQETest, closeDoesNotWaitForLongForALookWithoutTheLock)
{
    std::future<Look::Outcome> waiting;
    std::unique_lock kept(host.looking);
    {
        LocalRQE::ForegroundScope scope(*engine);
        waiting = look();
        while (host.waitingLooks == 0)
            std::this_thread::yield();
    }
    const auto begin = std::chrono::steady_clock::now();
    engine->close("going down");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(endOf(waiting).abandoned, "engine 1: going down");
    EXPECT_THROW(look(), EngineError);
    kept.unlock(); // the thread is still to be able to end
    engine.reset();
    EXPECT_EQ(host.waitingLooks, 0);
}

TEST_F(LocalRQETest, aForkedChildEndsWithoutTheLookingThread)
{
    LocalRQE::ForegroundScope scope(*engine);
    auto beside = look();
    endOf(beside);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(10);
        engine->close("the child ends");
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(LocalRQETest, tellsListenersThatLive)
{
    struct Listener : EngineListener
    {
        explicit Listener(Log& log) : log_(log) {}
        void variablesMayHaveChanged() override
        {
            log_.push_back("variables");
            throw std::runtime_error("not the engine's business");
        }
        void workBegins() override { log_.push_back("begins"); }
        void folderChanged(const std::string& folder) override { log_.push_back(folder); }
        void promptChanged(bool waiting) override { log_.push_back(waiting ? "prompt" : "line"); }
        Log& log_;
    };
    Log first;
    Log second;
    auto removed = std::make_shared<Listener>(first);
    auto mortal = std::make_shared<Listener>(first);
    auto kept = std::make_shared<Listener>(second);
    for (const auto& listener : {removed, mortal, kept})
        engine->addListener(listener);
    engine->removeListener(removed.get());
    mortal.reset();

    engine->notifyPrompt(true);
    engine->notifyPrompt(false);
    engine->notifyFolderChanged("/data");
    post("a");
    engine->runOne();
    {
        LocalRQE::ForegroundScope scope(*engine);
    }
    EXPECT_EQ(first, Log{});
    EXPECT_EQ(second, (Log{"prompt", "line", "/data", "begins", "variables", "begins", "variables"}));
}

TEST_F(LocalRQETest, theProcessSessionGivesTheEngineUntilItCloses)
{
    EXPECT_EQ(Factory::getCurrentLocalRQE(), nullptr);
    ProcessSession::setSession(makeSession(engine));
    EXPECT_EQ(Factory::getCurrentLocalRQE(), engine);
    engine->close("going down");
    EXPECT_FALSE(ProcessSession::session()->hasEngine());
    EXPECT_EQ(Factory::getCurrentLocalRQE(), nullptr);
    ProcessSession::setSession({});
    EXPECT_EQ(ProcessSession::session(), nullptr);
}

} // namespace
