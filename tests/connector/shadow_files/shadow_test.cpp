#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <boost/smart_ptr/make_shared.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/shadow_files/MobileConfigurationServiceProvider.h"
#include "connector/shadow_files/ShadowServiceProvider.h"
#include "connector/shadow_files/ShadowWire.h"
#include "connector/shadow_files/held_engine.h"

namespace connector::shadow_files::v1 {
namespace {

namespace fs = std::filesystem;
using container::v1::ContainerRequest;
using container::v1::ContainerResponse;
using Path = std::vector<std::string>;

TEST(BehaviorsTest, LaterSetsShadowEarlierOnes)
{
    BehaviorsImpl behaviors;
    behaviors.registerBehaviorSet("base", {{"page", "wide"}, {"keys", "all"}});
    behaviors.registerBehaviorSet("small", {{"page", "narrow"}});
    behaviors.pushBehaviorSet("phone", "base");
    behaviors.pushBehaviorSet("phone", "small");
    behaviors.pushBehaviorSet("tablet", "base");
    EXPECT_EQ(behaviors.getBehavior("phone", "page"), "narrow");
    EXPECT_EQ(behaviors.getBehavior("phone", "keys"), "all");
    EXPECT_EQ(behaviors.getBehavior("tablet", "page"), "wide");
    EXPECT_EQ(behaviors.getBehavior("tablet", "nothing"), std::nullopt);
    EXPECT_EQ(behaviors.getBehavior("desktop", "page"), std::nullopt);

    behaviors.pushBehaviorSet("phone", "base");
    EXPECT_EQ(behaviors.getBehavior("phone", "page"), "wide");
    behaviors.removeBehaviorSet("phone", "base");
    EXPECT_EQ(behaviors.getBehavior("phone", "page"), "narrow") << "the latest push of the set went";
    behaviors.registerBehaviorSet("small", {});
    EXPECT_EQ(behaviors.getBehavior("phone", "page"), "wide");
    behaviors.unregisterBehaviorSet("base");
    EXPECT_EQ(behaviors.getBehavior("tablet", "page"), std::nullopt);
    EXPECT_THROW(behaviors.pushBehaviorSet("phone", "base"), std::invalid_argument);
    EXPECT_THROW(behaviors.registerBehaviorSet("large", {{"x", std::string(2u << 20, 'x')}}), std::length_error);
    for (std::size_t i = 1; i < BehaviorsImpl::kMaxPushed; ++i)
        behaviors.pushBehaviorSet("phone", "small");
    EXPECT_THROW(behaviors.pushBehaviorSet("phone", "small"), std::length_error);
}

/// Records the path at the time a message is served.
class Probe final : public ServiceProvider
{
public:
    explicit Probe(boost::shared_ptr<HeldEngine> engine) : engine_(std::move(engine)) {}
    void start() override {}
    void stop() override {}
    bool isRunning() const override { return true; }
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&) override
    {
        engine_->run();
        seen = engine_->interpreter.path;
        return makeReadyFuture(std::move(message));
    }
    Path seen;

private:
    const boost::shared_ptr<HeldEngine> engine_;
};

class ShadowTest : public testing::Test
{
protected:
    ShadowTest()
    {
        fs::create_directories(folder / "first");
        fs::create_directories(folder / "second");
        connector->addServiceProvider("probe", probe);
        connector->addServiceProvider("filter", std::make_shared<ShadowContainerServiceProvider>(service));
        connector->addServiceProvider("connector/v1/shadowFiles", std::make_shared<ShadowServiceProviderImpl>(service));
        dispatcher->registerMessageMapping("Probe", Address{"probe"}, 0);
    }
    ~ShadowTest() override { fs::remove_all(folder); }

    std::string write(const std::string& name, const std::string& text) const
    {
        std::ofstream(folder / name) << text;
        return (folder / name).native();
    }

    std::string in(const std::string& name) const { return (folder / name).native(); }

    std::unique_ptr<Message> send(const std::string& clientType, std::unique_ptr<Message> message,
                                  const std::string& type = "Probe")
    {
        auto request = std::make_unique<ContainerRequest>();
        request->clientType = clientType;
        request->entries.push_back({"1", type, std::move(message), {}});
        auto answer = dispatcher->handle(std::move(request), Address(), connector->newContext()).get();
        engine->run();
        return std::move(dynamic_cast<ContainerResponse&>(*answer).entries.at(0).message);
    }

    static std::string faultOf(const Message& message)
    {
        const auto* fault = dynamic_cast<const container::v1::Fault*>(&message);
        return fault ? fault->code + ": " + fault->message : "";
    }

    const fs::path folder = fs::canonical(fs::temp_directory_path()) / ("shadow_test." + std::to_string(::getpid()));
    const Path own{"own", "lib"};
    boost::shared_ptr<HeldEngine> engine = boost::make_shared<HeldEngine>();
    std::shared_ptr<BehaviorsImpl> behaviors = std::make_shared<BehaviorsImpl>();
    std::shared_ptr<ShadowServiceImpl> service =
        std::make_shared<ShadowServiceImpl>(std::make_shared<PathManagerImpl>(engine), behaviors);
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<Probe> probe = std::make_shared<Probe>(engine);
    std::shared_ptr<container::v1::ContainerDispatcherImpl> dispatcher =
        std::make_shared<container::v1::ContainerDispatcherImpl>();
    ShadowMessageMapProvider mapping{dispatcher, Address{"filter"}};
};

TEST_F(ShadowTest, FilesMapAClientTypeToFoldersAndBehaviors)
{
    const auto file = service->loadClientTypeFile(
        write("a.json", R"({"clientType": "phone", "folders": ["first", "."], "behaviors": {"page": "narrow"}})"));
    EXPECT_EQ(file.clientType, "phone");
    EXPECT_EQ(file.folders, (Path{in("first"), folder.native()}));
    service->loadClientTypeFile(
        write("b.json", R"({"clientType": "phone", "folders": [")" + in("second/../first") + R"(", "second"]})"));
    EXPECT_EQ(*service->getUseCaseDirectories("phone"), (Path{in("first"), in("second"), folder.native()}));
    EXPECT_EQ(behaviors->getBehavior("phone", "page"), "narrow");

    service->loadClientTypeFile(write("a.json", R"({"clientType": "tablet", "behaviors": {"page": "wide"}})"));
    EXPECT_EQ(*service->getUseCaseDirectories("phone"), (Path{in("first"), in("second")}));
    EXPECT_FALSE(service->requiresPath("tablet"));
    EXPECT_FALSE(service->requiresPath(""));
    EXPECT_EQ(behaviors->getBehavior("phone", "page"), std::nullopt);
    EXPECT_EQ(behaviors->getBehavior("tablet", "page"), "wide");
}

TEST_F(ShadowTest, WrongFilesAreNamedAndChangeNothing)
{
    ASSERT_EQ(::mkfifo(in("pipe").c_str(), 0600), 0);
    write("good.json", R"({"clientType": "phone", "folders": ["first"]})");
    service->loadClientTypeFile(in("good.json"));
    for (const auto& [text, why] : std::vector<std::pair<std::string, std::string>>{
             {"", "byte 0"},
             {"[]", "expected an object"},
             {"{}", "clientType: expected a string"},
             {R"({"clientType": ""})", "clientType: expected a name"},
             {R"({"clientType": "phone", "folders": "first"})", "folders: expected an array"},
             {R"({"clientType": "phone", "folders": ["second", "gone"]})", "folders[1]: there is no folder"},
             {R"({"clientType": "phone", "folders": [""]})", "folders[0]: expected a folder's path"},
             {R"({"clientType": "phone", "behaviors": {"a": 1}})", "behaviors.a: expected a string"},
             {R"({"clientType": ")" + std::string(1u << 20, 'x') + "\"}", "more than 1048576 bytes"},
         }) {
        write("good.json", text);
        auto load = std::make_unique<LoadClientTypeFile>();
        load->path = in("good.json");
        const auto fault = faultOf(*send("", std::move(load), "LoadClientTypeFile"));
        EXPECT_NE(fault.find("badRequest: "), std::string::npos) << fault;
        EXPECT_NE(fault.find(why), std::string::npos) << fault;
        EXPECT_NE(fault.find(in("good.json")), std::string::npos) << fault;
    }
    for (const std::string& path :
         {std::string("good.json"), in("none.json"), in("first"), in("pipe"), std::string("/dev/zero")})
        EXPECT_THROW(service->loadClientTypeFile(path), std::invalid_argument) << path;
    EXPECT_EQ(*service->getUseCaseDirectories("phone"), Path{in("first")});
}

TEST_F(ShadowTest, FoldersAreOnThePathWhileAContainerOfTheTypeRuns)
{
    auto load = std::make_unique<LoadClientTypeFile>();
    load->path = write("a.json", R"({"clientType": "phone", "folders": ["first"]})");
    const auto loaded = send("", std::move(load), "LoadClientTypeFile");
    EXPECT_EQ(dynamic_cast<const LoadClientTypeFileResponse&>(*loaded).file.folders, Path{in("first")});

    send("phone", std::make_unique<ResetBgColor>());
    EXPECT_EQ(probe->seen, (Path{in("first"), "own", "lib"}));
    EXPECT_EQ(engine->interpreter.path, own);
    send("tablet", std::make_unique<ResetBgColor>());
    EXPECT_EQ(probe->seen, own);
    send("", std::make_unique<ResetBgColor>());
    EXPECT_EQ(probe->seen, own);
}

TEST_F(ShadowTest, FoldersComeOffAfterFailures)
{
    service->loadClientTypeFile(write("a.json", R"({"clientType": "phone", "folders": ["first"]})"));
    send("phone", nullptr, "Unknown");
    EXPECT_EQ(engine->interpreter.path, own);

    dispatcher->registerBeforeAddress(Address{"gone"});
    EXPECT_THROW(send("phone", std::make_unique<ResetBgColor>()), UnknownServiceProvider);
    engine->run();
    EXPECT_EQ(engine->interpreter.path, own);
    dispatcher->deregisterBeforeAddress(Address{"gone"});

    engine->capacity = 0;
    EXPECT_EQ(faultOf(*send("phone", std::make_unique<ResetBgColor>())).substr(0, 4), "busy");
    engine->capacity = 100;
    send("", std::make_unique<ResetBgColor>());
    EXPECT_EQ(probe->seen, own);

    auto request = std::make_unique<ContainerRequest>();
    request->clientType = "phone";
    auto asFilter = connector->handle(std::move(request), Address{"filter", "nobody"}, connector->newContext());
    EXPECT_THROW(asFilter.get(), UnknownServiceProvider);
    engine->run();
    EXPECT_EQ(engine->interpreter.path, own);
}

TEST_F(ShadowTest, ReloadedFileDoesNotStrandWhatRuns)
{
    service->loadClientTypeFile(write("a.json", R"({"clientType": "phone", "folders": ["first"]})"));
    const auto put = service->addToPath("phone");
    service->loadClientTypeFile(write("a.json", R"({"clientType": "phone", "folders": ["second"]})"));
    service->removeFromPath(put);
    engine->run();
    EXPECT_EQ(engine->interpreter.path, own);
}

TEST_F(ShadowTest, MobileConfigurationRefusesWhatIsNoColorAndNeedsAnEngine)
{
    auto mobile = std::make_shared<MobileConfigurationServiceImpl>(nullptr);
    connector->addServiceProvider("mobile", std::make_shared<MobileConfigurationContainerServiceProvider>(mobile));
    MobileConfigurationMessageMapProvider map(dispatcher, Address{"mobile"});
    for (const auto& [color, fault] : std::vector<std::pair<std::string, std::string>>{
             {"#1e1e1e", "unavailable"}, {"red", "badRequest"}, {"", "badRequest"}, {"#12345g", "badRequest"}}) {
        auto message = std::make_unique<SetBgColor>();
        message->color = color;
        EXPECT_EQ(faultOf(*send("", std::move(message), "SetBgColor")).find(fault), 0u) << color;
    }
    auto together = std::make_unique<ContainerRequest>();
    together->entries.push_back({"1", "ResetBgColor", std::make_unique<ResetBgColor>(), {}});
    together->entries.push_back({"2", "LoadClientTypeFile", std::make_unique<LoadClientTypeFile>(), {}});
    const auto answer = connector->handle(std::move(together), Address{"mobile"}, connector->newContext()).get();
    const auto& entries = dynamic_cast<const ContainerResponse&>(*answer).entries;
    EXPECT_EQ(faultOf(*entries.at(0).message).find("unavailable"), 0u);
    EXPECT_EQ(faultOf(*entries.at(1).message).find("unknownType"), 0u);
}

} // namespace
} // namespace connector::shadow_files::v1
