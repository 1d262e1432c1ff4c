#include <gtest/gtest.h>

#include <boost/smart_ptr/make_shared.hpp>

#include "connector/configuration/ConfigurationImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/interpreter/InterpreterServiceProvider.h"

namespace connector::interpreter::v1 {
namespace {

/// An engine that keeps its tasks until the test runs or cancels them.
class HeldEngine final : public rqe::RQE
{
public:
    rqe::TaskId post(std::unique_ptr<rqe::Task> task) override
    {
        tasks.push_back(std::move(task));
        return tasks.size();
    }
    bool cancel(rqe::TaskId id) override
    {
        if (auto task = std::move(tasks[id - 1])) {
            task->abandon(std::make_exception_ptr(rqe::EngineError(rqe::EngineError::Reason::cancelled, "gone")));
            return true;
        }
        return false;
    }
    bool interrupt() override { return false; }
    bool interrupt(rqe::TaskId) override { return false; }
    State state() const override { return State::idle; }
    std::size_t queued() const override { return tasks.size(); }
    bool onInterpreterThread() const override { return false; }
    void addListener(const std::shared_ptr<rqe::EngineListener>&) override {}
    void removeListener(const rqe::EngineListener*) override {}

    std::vector<std::unique_ptr<rqe::Task>> tasks;
};

class InterpreterProviderTest : public testing::Test
{
protected:
    MessageFuture eval(const boost::shared_ptr<rqe::RQE>& with)
    {
        auto provider = std::make_shared<InterpreterServiceProviderImpl>(configuration, with);
        connector->addServiceProvider("interpreter", provider);
        context = connector->newContext();
        return connector->handle(std::make_unique<Eval>(), Address{"interpreter"}, std::shared_ptr<Context>(context));
    }

    static std::string faultOf(MessageFuture future)
    {
        try {
            future.get();
        } catch (const ServiceFault& fault) {
            return fault.code();
        }
        return "no fault";
    }

    std::shared_ptr<configuration::ConfigurationImpl> configuration =
        std::make_shared<configuration::ConfigurationImpl>();
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    boost::shared_ptr<HeldEngine> engine = boost::make_shared<HeldEngine>();
    std::shared_ptr<Context> context;
};

TEST_F(InterpreterProviderTest, WithoutAnEngineEveryRequestIsRefused)
{
    EXPECT_EQ(faultOf(eval(nullptr)), "unavailable");
    auto interrupted =
        connector->handle(std::make_unique<Interrupt>(), Address{"interpreter"}, connector->newContext()).get();
    EXPECT_FALSE(dynamic_cast<InterruptResponse&>(*interrupted).interrupted);
}

TEST_F(InterpreterProviderTest, RequestOfAClientThatLeftIsTakenOut)
{
    auto waiting = eval(engine);
    ASSERT_EQ(engine->tasks.size(), 1u);
    context->cancellation()->cancel();
    EXPECT_EQ(engine->tasks[0], nullptr);
    EXPECT_EQ(faultOf(std::move(waiting)), "cancelled");
}

TEST_F(InterpreterProviderTest, QueueIsBounded)
{
    configuration->set("interpreter.maxQueued", std::int64_t{1});
    auto first = eval(engine);
    EXPECT_EQ(faultOf(eval(engine)), "busy");
    engine->tasks.clear();
    EXPECT_THROW(first.get(), BrokenPromise) << "a task that is dropped never leaves its client waiting";
}

} // namespace
} // namespace connector::interpreter::v1
