#pragma once

#include <cstdint>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/Export.h"
#include "connector/core/Future.h"
#include "platform/rqe/RQE.h"

namespace connector::shadow_files::v1 {

/// How figures look by default, for clients with displays unlike a desktop's. Scripts find the colours in
/// `display_defaults`, a dictionary among the language's builtins ("background", "figure"); a plotting library that is
/// loaded already is told. Colours are "#rrggbb". Futures tell whether there was such a library; failures: ServiceFault
/// "badRequest", "busy", "cancelled", "scriptError", "unavailable". Threads: any.
class CONNECTOR_API MobileConfigurationService
{
public:
    virtual ~MobileConfigurationService() = default;

    /// Behind the axes.
    virtual Future<bool> setBgColor(const std::string& color) = 0;
    /// Everything is as it was before the first call.
    virtual Future<bool> resetBgColor() = 0;
    /// Around them.
    virtual Future<bool> changeDefaultFigureColor(const std::string& color) = 0;
};

class CONNECTOR_API MobileConfigurationServiceImpl final : public MobileConfigurationService
{
public:
    /// `engine` may be empty: everything then fails with "unavailable".
    explicit MobileConfigurationServiceImpl(boost::shared_ptr<rqe::RQE> engine) : engine_(std::move(engine)) {}

    Future<bool> setBgColor(const std::string& color) override;
    Future<bool> resetBgColor() override;
    Future<bool> changeDefaultFigureColor(const std::string& color) override;

private:
    Future<bool> post(const char* function, std::vector<std::string> arguments);

    const boost::shared_ptr<rqe::RQE> engine_;
};

} // namespace connector::shadow_files::v1
