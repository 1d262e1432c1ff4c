#pragma once

#include <mutex>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/http/HttpSession.h"
#include "connector/information/InformationMessages.h"
#include "platform/rqe/RQE.h"

namespace connector::information::v1 {

/// What clients may want to know about themselves and about this process. Threads: any. Failures are thrown.
class CONNECTOR_API InformationServiceProvider : public ServiceProviderAPI<InformationServiceProvider>
{
public:
    virtual GetCurrentClientPropertiesResponse getCurrentClientProperties(const Context& context) = 0;
    virtual GetUserHomeDirResponse getUserHomeDir(const Context& context) = 0;
    /// Throws std::invalid_argument, naming the path, when it is not absolute or not an existing folder.
    virtual SetUserHomeDirResponse setUserHomeDir(const SetUserHomeDir& request, const Context& context) = 0;
    virtual ServiceRegistryRequestResponse listServices(const Context& context) = 0;
    virtual EnabledFeaturesResponse enabledFeatures(const Context& context) = 0;
};

class CONNECTOR_API InformationServiceProviderImpl final : public InformationServiceProvider
{
public:
    /// The property of an HTTP session that keeps its home folder.
    static constexpr const char* kHomeProperty = "information.userHomeDir";

    /// `engine` may be empty: evaluation is then no feature of this process.
    InformationServiceProviderImpl(std::shared_ptr<http::HttpSessionManager> sessions,
                                   boost::shared_ptr<rqe::RQE> engine);

    GetCurrentClientPropertiesResponse getCurrentClientProperties(const Context& context) override;
    GetUserHomeDirResponse getUserHomeDir(const Context& context) override;
    SetUserHomeDirResponse setUserHomeDir(const SetUserHomeDir& request, const Context& context) override;
    ServiceRegistryRequestResponse listServices(const Context& context) override;
    EnabledFeaturesResponse enabledFeatures(const Context& context) override;

private:
    const std::shared_ptr<http::HttpSessionManager> sessions_;
    const boost::shared_ptr<rqe::RQE> engine_;
    std::mutex mutex_;
    std::string processHome_; ///< set by a client without a session; empty: what the system says
};

} // namespace connector::information::v1
