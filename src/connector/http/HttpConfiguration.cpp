#include "connector/http/HttpConfiguration.h"

#include <map>
#include <stdexcept>

#include <Poco/Timespan.h>

#include "connector/configuration/ConfigurationServiceProvider.h"
#include "connector/http/HttpText.h"
#include "connector/http/TlsIdentity.h"

namespace connector::http {

namespace {

constexpr const char* kConfigurationService = "connector/configuration";

/// What the configuration service said, once. Without one every key keeps its default.
class Values
{
public:
    explicit Values(Connector& connector)
    {
        if (!connector.listServiceProviders().contains(kConfigurationService))
            return;
        auto answer = connector.handle(std::make_unique<configuration::GetConfiguration>(),
                                       Address{kConfigurationService}, connector.newContext());
        if (!answer.isReady())
            throw std::runtime_error("The configuration did not answer at once.");
        const auto message = answer.get();
        for (const auto& setting : dynamic_cast<const configuration::ConfigurationValues&>(*message).settings)
            values_.emplace(setting.name, setting.value);
    }

    template <class T>
    T get(const char* key, T otherwise) const
    {
        const auto found = values_.find(key);
        if (found == values_.end())
            return otherwise;
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>)
            return static_cast<T>(std::get<std::int64_t>(found->second));
        else
            return std::get<T>(found->second);
    }

    Poco::Timespan seconds(const char* key, const Poco::Timespan& otherwise) const
    {
        return {get<std::int64_t>(key, otherwise.totalSeconds()) * Poco::Timespan::SECONDS};
    }

    std::chrono::milliseconds milliseconds(const char* key, std::chrono::milliseconds otherwise) const
    {
        return values_.contains(key) ? std::chrono::seconds(get<std::int64_t>(key, 0)) : otherwise;
    }

private:
    std::map<std::string, configuration::Value> values_;
};

bool isLoopbackName(const std::string& address)
{
    return address == "localhost" || address == "::1" || address.starts_with("127.");
}

/// Configured files, or the installation's own.
TlsFiles readTlsFiles(const Values& values, const std::string& address)
{
    const auto certificate = values.get("http.certificateFile", std::string());
    const auto key = values.get("http.keyFile", std::string());
    if (certificate.empty() != key.empty())
        throw std::runtime_error("http.certificateFile and http.keyFile go together; one of them is empty");
    if (!certificate.empty())
        return {certificate, key};
    auto names = values.get("http.allowedHosts", std::vector<std::string>());
    if (!isLoopbackName(address))
        names.push_back(address);
    return tlsIdentity(defaultTlsFolder(), names);
}

/// Other machines are let in only over TLS and with a secret that they can know.
void checkExposure(const Values& values, const ServerSettings& settings)
{
    if (isLoopbackName(settings.address))
        return;
    std::string missing;
    if (!settings.tls)
        missing = "http.tls";
    if (values.get("security.accessKeyFile", std::string()).empty())
        missing += missing.empty() ? "security.accessKeyFile" : " and security.accessKeyFile";
    if (!missing.empty())
        throw std::runtime_error("http.address: listening on " + printable(settings.address) +
                                 " would let other machines in, which needs " + missing);
}

} // namespace

ServerSettings readServerSettings(Connector& connector)
{
    const Values values(connector);
    ServerSettings settings;
    settings.address = values.get("http.address", settings.address);
    settings.port = values.get("http.port", settings.port);
    settings.unixSocket = values.get("http.unixSocket", settings.unixSocket);
    if (values.get("http.tls", false))
        settings.tls = readTlsFiles(values, settings.address);
    checkExposure(values, settings);
    settings.maxConnections = values.get("http.maxConnections", settings.maxConnections);
    settings.maxHeadBytes = values.get("http.maxHeadBytes", settings.maxHeadBytes);
    settings.maxBodyBytes = values.get("http.maxBodyBytes", settings.maxBodyBytes);
    settings.memoryBodyBytes = values.get("http.memoryBodyBytes", settings.memoryBodyBytes);
    settings.maxSpooledBytes = std::max(settings.maxSpooledBytes, 2 * settings.maxBodyBytes);
    settings.maxHeldBodyBytes = std::max(settings.maxHeldBodyBytes, 2 * settings.memoryBodyBytes);
    settings.spoolFolder = values.get("http.spoolFolder", settings.spoolFolder.string());
    settings.headTimeout = values.milliseconds("http.headTimeoutSeconds", settings.headTimeout);
    settings.bodyTimeout = values.milliseconds("http.bodyTimeoutSeconds", settings.bodyTimeout);
    auto& parameters = *settings.parameters;
    parameters.setMaxThreads(values.get("http.ioThreads", parameters.getMaxThreads()));
    parameters.setKeepAliveTimeout(values.seconds("http.idleTimeoutSeconds", parameters.getKeepAliveTimeout()));
    return settings;
}

SessionLimits readSessionLimits(Connector& connector)
{
    const Values values(connector);
    SessionLimits limits;
    if (const auto minutes = values.get<std::int64_t>("http.sessionIdleMinutes", 0); minutes > 0)
        limits.idle = std::chrono::minutes(minutes);
    limits.maxSessions = values.get("http.maxSessions", limits.maxSessions);
    return limits;
}

bool readTokenFileWanted(Connector& connector) { return Values(connector).get("security.tokenFile", true); }

} // namespace connector::http
