#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <boost/smart_ptr/make_shared.hpp>

#include "platform/fl/diagnostic_logger.h"
#include "platform/fl/filesystem.h"
#include "platform/matrix/Array.h"
#include "platform/rqe/LocalRQE.h"
#include "platform/shutdown/ShutdownRegistry.h"
#include "platform/us/BundleContext.h"
#include "platform/us/Framework.h"
#include "platform/us/ProcessFramework.h"

namespace {

using Gateway = void (*)(int, vxArray*[], int, const vxArray*[]);

constexpr const char* kNotEnabled = "CppMicroServices is not enabled so this method isn't supported.";

/// The real module through its table.
class Module
{
public:
    enum Position
    {
        start = 1,
        stop = 2,
        startBundle = 3,
        startAllBundles = 4,
        stopAllBundles = 6,
        loadAllServices = 8,
        unloadAllServices = 10,
        listAllBundleNames = 13,
        setLogDestination = 22,
        setLogSpecification = 23,
    };

    static Module& instance()
    {
        static Module module;
        return module;
    }

    void call(int position, const vxArray* argument = nullptr) const
    {
        vxArray* results[1] = {nullptr};
        const vxArray* arguments[2] = {argument, nullptr};
        entries_[position - 1](0, results, argument ? 1 : 0, arguments);
        vxDestroyArray(results[0]);
    }

    /// What the builtin throws, "" for nothing.
    std::string failure(int position, const vxArray* argument = nullptr) const
    {
        try {
            call(position, argument);
        } catch (const std::exception& error) {
            return error.what();
        }
        return {};
    }

private:
    Module()
    {
        const auto path = fl::filesystem::toNative(fl::filesystem::get_install_path()) / "bin" / "win64" /
                          "libzkconnectorusvendrahost.so";
        void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library)
            throw std::runtime_error(dlerror());
        auto query = reinterpret_cast<Gateway** (*)()>(dlsym(library, "QueryVDFcnTable_libzkconnectorusvendrahost"));
        entries_ = *query();
    }

    Gateway* entries_ = nullptr;
};

std::vector<std::string> registeredNames()
{
    std::vector<std::string> names;
    for (const auto& reference : foundation::cppmicroservices::getFramework()->GetBundleContext()->GetServiceReferences(
             "connector.Connector/1.0"))
        names.push_back(reference ? "connector" : "gone");
    return names;
}

class LifecycleTest : public testing::Test
{
protected:
    void SetUp() override { fl::log::setMask("connector::us_vendra_host", 8); }

    void TearDown() override
    {
        module.call(Module::stop);
        fl::log::setMask("connector::us_vendra_host", 0);
        fl::log::setMask("connector::wiring", 0);
    }

    /// The texts of one logger's lines while `action` runs.
    static std::string logOf(const std::string& logger, auto&& action)
    {
        testing::internal::CaptureStderr();
        action();
        std::istringstream lines(testing::internal::GetCapturedStderr());
        std::string texts;
        for (std::string line; std::getline(lines, line);)
            if (const auto at = line.find(" " + logger + ": "); at != std::string::npos)
                texts += line.substr(at + logger.size() + 3) + "\n";
        return texts;
    }

    static std::string lifecycleLog(auto&& action) { return logOf("connector::us_vendra_host", action); }

    const Module& module = Module::instance();
    const std::string startLines =
        "Starting Connector Framework\nStarting services manually\nDone starting services manually\n";
    const std::string stopLines =
        "Stopping Connector Framework\nStopping services manually\nDone stopping services manually\n";
};

TEST_F(LifecycleTest, LinesComeInOrderAndOnlyOncePerChange)
{
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stop); }), "") << "stop before any start";
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::start); }), startLines);
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::start); }), "");
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stop); }), stopLines);
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stop); }), "");
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::start); }), startLines);
    const auto hooks = ShutdownRegistry::names();
    EXPECT_EQ(std::count(hooks.begin(), hooks.end(), "MicroServicesShutdown"), 1);
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stop); }), stopLines);

    for (const unsigned mask : {0u, 7u, ~8u}) {
        fl::log::setMask("connector::us_vendra_host", mask);
        EXPECT_EQ(lifecycleLog([&] {
                      module.call(Module::start);
                      module.call(Module::stop);
                  }),
                  "");
    }
}

TEST_F(LifecycleTest, BuiltinsStartAndStopAsTheContainerlessBuildDoes)
{
    for (const int position : {4, 8})
        EXPECT_EQ(lifecycleLog([&] { module.call(position); }), position == 4 ? startLines : "");
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stopAllBundles); }), stopLines);
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::unloadAllServices); }), "");

    const auto name = matrix::create("file");
    EXPECT_EQ(lifecycleLog([&] { EXPECT_EQ(module.failure(Module::startBundle, name.get()), kNotEnabled); }),
              startLines)
        << "the framework is started before the error, and stays";
    for (const int position : {3, 5, 7, 9, 11, 12, 13, 14, 15, 16, 17, 18, 19})
        EXPECT_EQ(lifecycleLog([&] { EXPECT_EQ(module.failure(position, name.get()), kNotEnabled) << position; }), "");
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::unloadAllServices); }), stopLines);

    EXPECT_EQ(lifecycleLog([&] {
                  module.call(Module::setLogSpecification, matrix::create("error").get());
                  EXPECT_NE(module.failure(Module::setLogSpecification, matrix::create("loud").get()).find("loud"),
                            std::string::npos);
                  module.call(Module::setLogDestination, matrix::create("none").get());
                  module.call(Module::setLogDestination, matrix::create("stderr").get());
              }),
              "")
        << "log setters never start the framework";
}

TEST_F(LifecycleTest, NameThatIsNoTextIsReportedAndReadAsEmpty)
{
    const auto number = matrix::createScalar(3.0);
    testing::internal::CaptureStderr();
    const auto failure = module.failure(Module::startBundle, number.get());
    const auto missing = module.failure(Module::startBundle, nullptr);
    const auto errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(failure, kNotEnabled);
    EXPECT_EQ(missing, kNotEnabled);
    const auto first = errors.find("Name must be a string.\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(errors.find("Name must be a string.\n", first + 1), std::string::npos);
}

TEST_F(LifecycleTest, StartThatThrowsIsTriedAgain)
{
    const auto framework = foundation::cppmicroservices::getFramework();
    foundation::cppmicroservices::setFramework(nullptr);
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ(lifecycleLog([&] { EXPECT_EQ(module.failure(Module::start), "Invalid CppMicroServices framework"); }),
                  "Starting Connector Framework\nStarting services manually\n");
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::stop); }), "") << "it never was started";
    foundation::cppmicroservices::setFramework(framework);
    EXPECT_EQ(lifecycleLog([&] { module.call(Module::start); }), startLines);
    EXPECT_EQ(registeredNames().size(), 1u);
    module.call(Module::stop);
    EXPECT_TRUE(registeredNames().empty());
}

TEST_F(LifecycleTest, HostMayEndItsMicroServicesFirst)
{
    const auto framework = foundation::cppmicroservices::getFramework();
    module.call(Module::start);
    framework->Stop();
    EXPECT_EQ(lifecycleLog([&] { EXPECT_EQ(module.failure(Module::stop), ""); }), stopLines);
    EXPECT_EQ(module.failure(Module::start), "Invalid CppMicroServices framework") << "a stopped one has no context";
    framework->Start();
    EXPECT_EQ(module.failure(Module::start), "");
    EXPECT_EQ(registeredNames().size(), 1u);
}

TEST_F(LifecycleTest, HostMayNotifyOfItsEndMoreThanOnce)
{
    for (int time = 0; time < 2; ++time) {
        module.call(Module::start);
        EXPECT_EQ(lifecycleLog([] { ShutdownRegistry::notifyAll({}); }), stopLines) << time;
        EXPECT_EQ(lifecycleLog([] { ShutdownRegistry::notifyAll({}); }), "");
    }
}

TEST_F(LifecycleTest, TakenPortFailsTheStartAndNamesIt)
{
    const int taken = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    getsockname(taken, reinterpret_cast<sockaddr*>(&address), &size);
    const auto port = std::to_string(ntohs(address.sin_port));

    setenv("VENDRA_HTTP_PORT", port.c_str(), 1);
    EXPECT_EQ(module.failure(Module::start),
              "Cannot listen on 127.0.0.1:" + port + ": Address already in use (set by http.address, http.port)");
    close(taken);
    EXPECT_EQ(module.failure(Module::start), "");
    module.call(Module::stop);
    EXPECT_EQ(module.failure(Module::start), "") << "a stop frees the port at once";
    unsetenv("VENDRA_HTTP_PORT");
}

TEST_F(LifecycleTest, ConstructRegisterAndReleaseFollowTheGoldenTrace)
{
    fl::log::setMask("connector::wiring", fl::log::level::kTrace);
    const auto trace = logOf("connector::wiring", [&] {
        module.call(Module::start);
        module.call(Module::stop);
    });
    std::ifstream file(GOLDEN_TRACE);
    std::stringstream golden;
    golden << file.rdbuf();
    EXPECT_EQ(trace, golden.str());
}

std::size_t countEntries(const char* folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::stol(line.substr(6));
    return 0;
}

TEST_F(LifecycleTest, TwoHundredLivesLeaveNothingBehind)
{
    fl::log::setMask("connector::us_vendra_host", 0);
    const auto live = [&](int times) {
        for (int i = 0; i < times; ++i) {
            module.call(Module::start);
            module.call(Module::stop);
        }
    };
    live(40);
    const auto threads = countEntries("/proc/self/task");
    const auto descriptors = countEntries("/proc/self/fd");
    const auto memory = residentKiB();
    live(200);
    EXPECT_EQ(countEntries("/proc/self/task"), threads);
    EXPECT_EQ(countEntries("/proc/self/fd"), descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(residentKiB() - memory, 1024);
#else
    (void)memory;
#endif
}

/// An engine that nobody serves: enough to see who holds it.
class NoLanguage final : public rqe::LanguageHost
{
public:
    void withInterpreter(const std::function<void(rqe::Interpreter&)>&) override {}
    void breakRunning() override {}
    void discardBreak() override {}
};

TEST_F(LifecycleTest, EngineIsHeldFromStartToTheEndOfStop)
{
    NoLanguage language;
    auto engine = boost::make_shared<rqe::LocalRQE>(language);
    rqe::ProcessSession::setSession(rqe::makeSession(engine));
    const auto before = engine.use_count();
    module.call(Module::start);
    EXPECT_GT(engine.use_count(), before);
    module.call(Module::stop);
    EXPECT_EQ(engine.use_count(), before);
    rqe::ProcessSession::setSession(nullptr);
    EXPECT_EQ(engine.use_count(), 1);
    module.call(Module::start);
    EXPECT_EQ(engine.use_count(), 1) << "without a session there is no engine";
}

} // namespace
