#include <cstdlib>
#include <filesystem>
#include <string_view>

#include <pwd.h>
#include <unistd.h>

#include "connector/core/Connector.h"
#include "connector/information/InformationServiceProvider.h"

namespace connector::information::v1 {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxPathBytes = 4'096;

/// A feature is there while its service runs and what that works with exists.
struct Feature
{
    enum class Needs
    {
        nothing,
        engine,
        sessions
    };
    const char* name; ///< in name order
    const char* service;
    Needs needs = Needs::nothing;
    const char* also = nullptr; ///< another service
};

constexpr Feature kFeatures[] = {
    {"asyncEvaluation", "connector/v1/interpreter", Feature::Needs::engine, "connector/bayeux/service"},
    {"bus", "connector/bayeux/service"},
    {"configuration", "connector/configuration"},
    {"containers", "connector/v1/container"},
    {"desktop", "connector/v1/desktop", Feature::Needs::engine},
    {"evaluation", "connector/v1/interpreter", Feature::Needs::engine},
    {"hitchhiker", "connector/v1/hitchhiker"},
    {"httpClient", "connector/http/client"},
    {"httpSessions", "connector/http/session", Feature::Needs::sessions},
    {"mobileConfiguration", "connector/v1/mobileConfigurationContainer", Feature::Needs::engine},
    {"shadowFiles", "connector/v1/shadowFiles", Feature::Needs::engine},
    {"staticContent", "connector/http/staticContent"},
};

std::string homeOfUser()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> texts(16'384);
    if (::getpwuid_r(::getuid(), &entry, texts.data(), texts.size(), &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return {};
}

/// The folder's path without detours.
std::string checkedFolder(const std::string& text)
{
    const auto refuse = [&text](const char* why) {
        // As a C text: an exception's text ends at the first NUL anyway.
        const std::string shown = text.substr(0, kMaxPathBytes).c_str();
        throw std::invalid_argument("The home folder cannot be \"" + shown + "\": " + why);
    };
    if (text.size() > kMaxPathBytes)
        refuse("the path is too long.");
    if (text.find('\0') != std::string::npos)
        refuse("the path holds a NUL character.");
    fs::path path(text);
    if (!path.is_absolute())
        refuse("the path is not absolute.");
    std::error_code failure;
    const auto status = fs::status(path, failure);
    if (!fs::exists(status))
        refuse(failure ? failure.message().c_str() : "there is no such folder.");
    if (!fs::is_directory(status))
        refuse("it is not a folder.");
    // Beyond a symbolic link ".." means another folder than the text says.
    path = fs::weakly_canonical(path, failure);
    return failure ? text : path.native();
}

} // namespace

InformationServiceProviderImpl::InformationServiceProviderImpl(std::shared_ptr<http::HttpSessionManager> sessions,
                                                               boost::shared_ptr<rqe::RQE> engine)
    : sessions_(std::move(sessions)), engine_(std::move(engine))
{}

GetCurrentClientPropertiesResponse InformationServiceProviderImpl::getCurrentClientProperties(const Context& context)
{
    GetCurrentClientPropertiesResponse response;
    response.clientType = context.clientType();
    response.transport = context.transport();
    if (const auto& session = context.httpSession()) {
        response.sessionId = session->id();
        if (auto home = session->property(kHomeProperty))
            response.properties.emplace("userHomeDir", std::move(*home));
    }
    return response;
}

GetUserHomeDirResponse InformationServiceProviderImpl::getUserHomeDir(const Context& context)
{
    GetUserHomeDirResponse response;
    const auto& session = context.httpSession();
    if (auto home = session ? session->property(kHomeProperty) : std::nullopt) {
        response.path = std::move(*home);
        return response;
    }
    std::lock_guard lock(mutex_);
    response.path = processHome_.empty() ? homeOfUser() : processHome_;
    return response;
}

SetUserHomeDirResponse InformationServiceProviderImpl::setUserHomeDir(const SetUserHomeDir& request,
                                                                      const Context& context)
{
    SetUserHomeDirResponse response;
    response.path = checkedFolder(request.path);
    if (const auto& session = context.httpSession()) {
        session->setProperty(kHomeProperty, response.path);
    } else {
        std::lock_guard lock(mutex_);
        processHome_ = response.path;
    }
    return response;
}

ServiceRegistryRequestResponse InformationServiceProviderImpl::listServices(const Context& context)
{
    ServiceRegistryRequestResponse response;
    const auto connector = context.connector();
    for (const auto& name : connector->listServiceProviders())
        response.services.emplace(name, connector->isServiceProviderRunning(name));
    return response;
}

EnabledFeaturesResponse InformationServiceProviderImpl::enabledFeatures(const Context& context)
{
    EnabledFeaturesResponse response;
    const auto connector = context.connector();
    const auto exists = [&](Feature::Needs needs) {
        switch (needs) {
        case Feature::Needs::engine:
            return engine_ && engine_->state() != rqe::RQE::State::closed;
        case Feature::Needs::sessions:
            return sessions_ != nullptr;
        case Feature::Needs::nothing:
            break;
        }
        return true;
    };
    const auto runs = [&](const char* service) { return !service || connector->isServiceProviderRunning(service); };
    for (const auto& feature : kFeatures)
        response.features.emplace_back(feature.name,
                                       runs(feature.service) && runs(feature.also) && exists(feature.needs));
    return response;
}

} // namespace connector::information::v1
