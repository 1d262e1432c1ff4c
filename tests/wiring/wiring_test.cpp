#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include <unistd.h>

#include "connector/administration/AdministrationImpl.h"
#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/http/HttpManagerServiceProviderImpl.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/interpreter/InterpreterMessages.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/shadow_files/ShadowService.h"
#include "platform/us/BundleContext.h"
#include "platform/us/ProcessFramework.h"
#include "platform/us/ServiceTracker.h"
#include "wiring/core/Drivers.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Module.h"
#include "wiring/core/Slot.h"
#include "wiring/runtime_folder.h"

namespace wiring {
namespace {

using connector::Address;
using connector::ConnectorImpl2;
using connector::http::HttpRouterImpl;

class WiringTest : public testing::Test
{
protected:
    void SetUp() override { startServicesManually(); }
    void TearDown() override
    {
        if (slot<ConnectorImpl2>)
            stopServicesManually();
    }

    test::RuntimeFolder runtime;

    static std::vector<std::string> commandNames()
    {
        std::vector<std::string> names;
        for (const auto& command : slot<connector::administration::AdministrationImpl>->getAll().get())
            names.push_back(command.name());
        return names;
    }

    /// What a message of the interpreter's is answered with, by fault code or class.
    static std::string ask(const std::string& type, const std::string& clientType = {})
    {
        auto request = std::make_unique<connector::container::v1::ContainerRequest>();
        request->clientType = clientType;
        request->entries.push_back({"1", type, std::make_unique<connector::interpreter::v1::Interrupt>(), {}});
        const auto answer =
            slot<ConnectorImpl2>
                ->handle(std::move(request), Address{"connector/v1/container"}, slot<ConnectorImpl2>->newContext())
                .get();
        const auto& message =
            *dynamic_cast<const connector::container::v1::ContainerResponse&>(*answer).entries.at(0).message;
        if (const auto* fault = dynamic_cast<const connector::container::v1::Fault*>(&message))
            return fault->code;
        return "answered";
    }
};

TEST_F(WiringTest, RoutesHaveTheirAddresses)
{
    auto& router = *slot<HttpRouterImpl>;
    const Address fallback{"connector/http/localhostFilter", "connector/http/pathFilter",
                           "connector/http/responseHeader", "connector/v1/httpNonce", "connector/http/staticContent"};
    EXPECT_EQ(router.listRoutes().size(), 6u);
    EXPECT_EQ(router.findAddress("/connector/messagebroker/amf"), Address{"connector/http/serviceUnavailable"});
    EXPECT_EQ(router.findAddress("/"), fallback);
    EXPECT_EQ(router.findAddress("/vendra/toolboxes"), fallback);
    EXPECT_EQ(router.findAddress("/vendra/toolbox/x").parts().at(1), "connector/http/vendraToolbox");
    EXPECT_EQ(router.findAddress("/messageservice/async").parts().at(2), "connector/v1/httpNonce");
    EXPECT_EQ(router.findAddress("/messageservice/container"),
              (Address{"connector/http/localhostFilter", "connector/http/session", "connector/v1/httpNonce",
                       "connector/v1/http", "connector/v1/clientType", "connector/v1/container"}));
}

TEST_F(WiringTest, InstallersMayRunAgain)
{
    const auto names = slot<ConnectorImpl2>->listServiceProviders();
    const auto commands = commandNames();
    ASSERT_FALSE(commands.empty());

    // All but the registry's and the administration's own, whose replacement starts with nothing in it.
    for (const auto install :
         {installJsonServices, installConfigurationServices, installHttpServices, installBayeuxServices,
          installCommonServices, installContainerServices, installDesktopServices, installHitchhikerServices,
          installInformationServices, installShadowFilesServices, installInterpreterServices, installSecurityServices})
        for (int time = 0; time < 2; ++time)
            install();

    EXPECT_EQ(slot<ConnectorImpl2>->listServiceProviders(), names);
    EXPECT_EQ(commandNames(), commands);
    EXPECT_EQ(slot<HttpRouterImpl>->listRoutes().size(), 6u);
    EXPECT_TRUE(runtime.isAnnounced()) << "the former manager goes before its successor announces itself";
    EXPECT_TRUE(slot<connector::json::JsonSerializerImpl>->knows("Eval"));
    EXPECT_TRUE(slot<connector::json::JsonSerializerImpl>->knows("ContainerRequest"));
    EXPECT_EQ(ask("Interrupt"), "answered");
}

TEST_F(WiringTest, ContainersPassTheFiltersAlsoWithoutAnEngine)
{
    ASSERT_FALSE(engineSlot);
    const auto file = std::filesystem::temp_directory_path() / ("wiring_test." + std::to_string(::getpid()));
    std::ofstream(file) << R"({"clientType": "phone", "folders": ["."]})";
    slot<connector::shadow_files::v1::ShadowServiceImpl>->loadClientTypeFile(file.native());
    std::filesystem::remove(file);
    EXPECT_EQ(ask("Interrupt", "phone"), "answered");
    for (const char* filter : {"connector/v1/shadowFilesContainer", "connector/v1/hitchhikerContainer"}) {
        slot<ConnectorImpl2>->removeServiceProvider(filter);
        EXPECT_THROW(ask("Interrupt", "phone"), connector::UnknownServiceProvider) << filter;
        installHitchhikerServices();
        installShadowFilesServices();
    }
}

TEST_F(WiringTest, RegistryIsVisibleToMicroServicesUntilTheTeardown)
{
    us::ServiceTracker<connector::Connector> tracker(frameworkContext(), "connector.Connector/1.0");
    tracker.Open();
    EXPECT_EQ(tracker.GetService(), slot<ConnectorImpl2>);
    stopServicesManually();
    EXPECT_TRUE(tracker.IsEmpty());
    tracker.Close();
}

TEST_F(WiringTest, TeardownRemovesWhatOthersRegisteredAndEmptiesEverySlot)
{
    auto foreign = slot<connector::http::HttpManagerServiceProviderImpl>;
    slot<ConnectorImpl2>->addServiceProvider("other/manager", foreign);
    const std::weak_ptr<ConnectorImpl2> registry = slot<ConnectorImpl2>;
    const std::weak_ptr<connector::json::JsonSerializerImpl> serializer = slot<connector::json::JsonSerializerImpl>;
    const std::weak_ptr<connector::configuration::ConfigurationImpl> configuration =
        slot<connector::configuration::ConfigurationImpl>;
    const std::weak_ptr<connector::container::v1::ContainerDispatcherImpl> dispatcher =
        slot<connector::container::v1::ContainerDispatcherImpl>;
    const std::weak_ptr<HttpRouterImpl> router = slot<HttpRouterImpl>;
    const std::weak_ptr<connector::bayeux::BayeuxServerImpl> bus = slot<connector::bayeux::BayeuxServerImpl>;

    stopServicesManually();
    EXPECT_FALSE(foreign->isRunning());
    foreign.reset();
    // Nothing holds anything in a circle.
    EXPECT_TRUE(registry.expired());
    EXPECT_TRUE(serializer.expired());
    EXPECT_TRUE(configuration.expired());
    EXPECT_TRUE(dispatcher.expired());
    EXPECT_TRUE(router.expired());
    EXPECT_TRUE(bus.expired());
}

TEST_F(WiringTest, TeardownMayBeRepeatedAndOutlivesTheHostsFramework)
{
    stopServicesManually();
    stopServicesManually();
    EXPECT_FALSE(slot<ConnectorImpl2>);

    const auto framework = foundation::cppmicroservices::getFramework();
    startServicesManually();
    framework->Stop();
    EXPECT_THROW(frameworkContext(), std::runtime_error);
    stopServicesManually();
    EXPECT_FALSE(slot<ConnectorImpl2>);
    framework->Start();
}

TEST(WiringTables, NameEveryStepOnce)
{
    std::set<std::string_view> starts;
    std::set<std::string_view> groups;
    for (const auto& step : startSteps)
        starts.insert(step.name);
    for (const auto& group : teardownGroups)
        groups.insert(group.name);
    EXPECT_EQ(starts.size(), 29u);
    EXPECT_EQ(groups.size(), 29u);
}

} // namespace
} // namespace wiring
