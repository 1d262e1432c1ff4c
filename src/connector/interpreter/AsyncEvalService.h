#pragma once

#include <memory>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/Export.h"
#include "connector/bayeux/BayeuxServer.h"
#include "connector/configuration/Configuration.h"
#include "connector/http/HttpSession.h"
#include "connector/interpreter/KeptAnswers.h"
#include "connector/shadow_files/ShadowService.h"
#include "platform/rqe/RQE.h"

namespace connector::interpreter::v1 {

/// Evaluation over the bus: requests on "/service/interpreter/…", among them those that start an evaluation which
/// outlives its request and its client (docs/evaluation.md). Serves while it lives; evaluations that run when it goes
/// run on, without anybody who hears of them.
class CONNECTOR_API AsyncEvalService
{
public:
    static constexpr const char* kChannels = "/service/interpreter/*";
    /// Where what happens at the interpreter is told, by whichever family.
    static constexpr const char* kReserved = "/interpreter/**";
    static constexpr std::size_t kMaxEvaluations = 200;        ///< that did not end, and kept ones
    static constexpr std::uint64_t kMaxKeptBytes = 256u << 20; ///< of evaluations that ended, together
    static constexpr std::chrono::minutes kKeepTime{30};       ///< of one that ended
    static constexpr std::size_t kMaxReplyBytes = 2u << 20;    ///< what takes more is kept to be fetched

    /// Without a server there is nothing to serve. `engine` may be empty: requests then fail with "unavailable".
    AsyncEvalService(std::shared_ptr<bayeux::BayeuxServer> server,
                     std::shared_ptr<http::HttpSessionManager> httpSessions,
                     std::shared_ptr<shadow_files::v1::ShadowService> shadows, boost::shared_ptr<rqe::RQE> engine);
    ~AsyncEvalService();
    /// Whose settings hold from now on; until then those of an empty configuration.
    void configure(std::shared_ptr<configuration::Configuration> configuration);
    /// Those that were too large for a message.
    std::shared_ptr<KeptAnswers> answers() const;
    AsyncEvalService(const AsyncEvalService&) = delete;
    AsyncEvalService& operator=(const AsyncEvalService&) = delete;

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
    bayeux::BayeuxServer::Registration reservation_;
    bayeux::BayeuxServer::Registration registration_;
    bayeux::BayeuxServer::Registration listening_;
};

} // namespace connector::interpreter::v1
