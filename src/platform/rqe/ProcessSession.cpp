#include "platform/rqe/ProcessSession.h"

#include <mutex>
#include <utility>

#include <boost/smart_ptr/make_shared.hpp>

#include "platform/rqe/LocalRQE.h"

namespace rqe {
namespace {

struct Holder
{
    std::mutex mutex;
    boost::shared_ptr<Session> session;
};

Holder& holder()
{
    static Holder instance;
    return instance;
}

class EngineSession : public Session
{
public:
    explicit EngineSession(boost::shared_ptr<RQE> engine) : engine_(std::move(engine)) {}

    bool hasEngine() const override { return engine_ && engine_->state() != RQE::State::closed; }
    boost::shared_ptr<RQE> engine() const override { return hasEngine() ? engine_ : nullptr; }

private:
    boost::shared_ptr<RQE> engine_;
};

} // namespace

Session::~Session() = default;

boost::shared_ptr<Session> ProcessSession::session()
{
    Holder& h = holder();
    std::lock_guard lock(h.mutex);
    return h.session;
}

void ProcessSession::setSession(boost::shared_ptr<Session> session)
{
    Holder& h = holder();
    // The former session goes after the lock: its destructor may be anybody's.
    std::lock_guard lock(h.mutex);
    h.session.swap(session);
}

boost::shared_ptr<RQE> Factory::getCurrentLocalRQE()
{
    boost::shared_ptr<Session> session = ProcessSession::session();
    return session ? session->engine() : nullptr;
}

boost::shared_ptr<Session> makeSession(boost::shared_ptr<RQE> engine)
{
    return boost::make_shared<EngineSession>(std::move(engine));
}

} // namespace rqe
