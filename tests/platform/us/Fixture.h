#pragma once

#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/us/BundleContext.h"
#include "platform/us/Framework.h"
#include "platform/us/ServiceConstants.h"
#include "platform/us/ServiceTracker.h"

namespace us_test {

struct Greeter
{
    virtual ~Greeter() = default;
    virtual std::string greet() const = 0;
};

struct Counter
{
    virtual ~Counter() = default;
    virtual int count() const = 0;
};

struct Unoffered
{
    virtual ~Unoffered() = default;
};

/// Counter is not the first base: its pointer differs from the object's.
struct Both : Greeter, Counter
{
    explicit Both(std::string text = "hello") : greeting(std::move(text)) {}
    std::string greet() const override { return greeting; }
    int count() const override { return static_cast<int>(greeting.size()); }
    std::string greeting;
};

} // namespace us_test

US_DECLARE_SERVICE_INTERFACE(us_test::Greeter, "us.test.Greeter/1.0")
US_DECLARE_SERVICE_INTERFACE(us_test::Counter, "us.test.Counter/1.0");

namespace us_test {

using Texts = std::vector<std::string>;

/// Writes down "EVENT name" for every service event, in order.
class Recorder
{
public:
    void heard(const us::ServiceEvent& event)
    {
        std::ostringstream type;
        type << event;
        add(type.str().substr(0, type.str().find(' ')) + " " +
            event.GetServiceReference().GetProperty("name").ToStringNoExcept());
    }
    void add(std::string text)
    {
        const std::lock_guard lock(mutex_);
        texts_.push_back(std::move(text));
    }
    Texts take()
    {
        const std::lock_guard lock(mutex_);
        return std::exchange(texts_, {});
    }
    us::ServiceListener listener()
    {
        return [this](const us::ServiceEvent& event) { heard(event); };
    }

private:
    std::mutex mutex_;
    Texts texts_;
};

class UsTest : public testing::Test
{
protected:
    UsTest() { framework_->Start(); }

    us::BundleContext& context() const { return *framework_->GetBundleContext(); }
    us::ServiceRegistration<Greeter> offer(const std::string& name, us::ServiceProperties properties = {})
    {
        properties["name"] = name;
        return context().RegisterService<Greeter>(std::make_shared<Both>(name), properties);
    }

    std::shared_ptr<us::Framework> framework_ = us::FrameworkFactory().NewFramework();
};

/// The text of the exception of exactly that kind or kinds below it; a note where there is none.
template <class Exception, class Function>
std::string textOf(Function&& function)
{
    try {
        function();
    } catch (const Exception& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("another exception: ") + error.what();
    }
    return "no exception";
}

} // namespace us_test
