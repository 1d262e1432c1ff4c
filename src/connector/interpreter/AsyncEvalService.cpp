#include "connector/interpreter/AsyncEvalService.h"

#include <algorithm>
#include <map>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/common/Secret.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/interpreter/AsyncTask.h"
#include "connector/interpreter/EngineTask.h"
#include "connector/interpreter/EvaluationSettings.h"
#include "connector/interpreter/InterpreterJson.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::interpreter::v1 {
namespace {

using json::Object;
using Clock = Evaluation::Clock;
using Kept = KeptEvaluation;

constexpr std::size_t kIdBytes = 8;
constexpr std::size_t kTitleBytes = 200;

/// A message on one of the channels, and the way to answer it.
struct Request
{
    const bayeux::BayeuxMessage& message;
    json::Members& data;
    Poco::Dynamic::Var tag; ///< of the client's, goes into the answer

    const bayeux::SessionPtr& sender() const noexcept { return message.sender; }
};

std::string textOf(const Poco::Dynamic::Var& tag, Object::Ptr members)
{
    if (!tag.isEmpty())
        members->set("tag", tag);
    return json::write(members);
}

void reply(const bayeux::SessionPtr& session, const std::string& channel, const Poco::Dynamic::Var& tag,
           const Object::Ptr& members)
{
    session->deliver(bayeux::BayeuxEvent::ofText(channel, textOf(tag, members)));
}

void replyFault(const bayeux::SessionPtr& session, const std::string& channel, const Poco::Dynamic::Var& tag,
                const std::exception_ptr& failure)
{
    auto members = json::makeObject();
    members->set("fault", faultMembers(failure));
    reply(session, channel, tag, members);
}

/// A program is one client for as long as its session lasts; a browser is the same in all its tabs, and over HTTP.
engine_tasks::Client clientOf(const bayeux::BayeuxSession& session)
{
    if (!session.httpSessionId().empty())
        return engine_tasks::clientOfSession(session.httpSessionId());
    return {"bus " + session.id(), "a program on the bus"};
}

const char* nameOf(Evaluation::State state)
{
    switch (state) {
    case Evaluation::State::queued:
        return "queued";
    case Evaluation::State::running:
        return "running";
    case Evaluation::State::ended:
        break;
    }
    return "ended";
}

} // namespace

/// The service's work. Threads: any.
class AsyncEvalService::Impl final : public http::HttpSessionListener,
                                     public bayeux::BayeuxListener,
                                     public std::enable_shared_from_this<Impl>
{
public:
    Impl(std::shared_ptr<shadow_files::v1::ShadowService> shadows, boost::shared_ptr<rqe::RQE> engine)
        : shadows_(std::move(shadows)), engine_(std::move(engine))
    {}

    void handle(const bayeux::BayeuxMessage& message);
    void configure(std::shared_ptr<configuration::Configuration> configuration);
    const std::shared_ptr<KeptAnswers>& answers() const noexcept { return answers_; }
    void stop();
    void sessionRemoved(const bayeux::SessionPtr& session, bool timedOut) override;
    void sessionEnded(const std::shared_ptr<http::HttpSession>& session) override;

private:
    using Handler = Object::Ptr (Impl::*)(const Request&);
    using KeptPtr = std::shared_ptr<Kept>;

    static const std::map<std::string, Handler, std::less<>> kHandlers;

    /// These answer at once, or, with null, later by themselves.
    Object::Ptr eval(const Request& request);
    Object::Ptr feval(const Request& request);
    Object::Ptr start(const Request& request);
    Object::Ptr attach(const Request& request);
    Object::Ptr detach(const Request& request);
    Object::Ptr list(const Request& request);
    Object::Ptr cancel(const Request& request);
    Object::Ptr input(const Request& request);
    Object::Ptr forget(const Request& request);
    Object::Ptr interrupt(const Request& request);

    void requireEngine() const;
    std::shared_ptr<const EvaluationSettings> settings() const;
    std::shared_ptr<CancellationToken> tokenOf(const bayeux::SessionPtr& session);
    template <class Call, class Response>
    Object::Ptr call(const Request& request, std::unique_ptr<Call> message,
                     Object::Ptr (*encode)(const Response& response));
    template <class Response>
    static std::string answerText(const Poco::Dynamic::Var& tag, const std::shared_ptr<const Response>& answer,
                                  Object::Ptr (*encode)(const Response& response), KeptAnswers& answers,
                                  const std::string& httpSession);
    std::shared_ptr<void> pathFor(const std::string& clientType) const;
    KeptPtr find(const Request& request) const;
    void add(const KeptPtr& kept);
    template <class Condition>
    void removeIf(Condition condition);
    void removeOld();

    const std::shared_ptr<shadow_files::v1::ShadowService> shadows_;
    const boost::shared_ptr<rqe::RQE> engine_;
    const std::shared_ptr<Pump> pump_ = std::make_shared<Pump>();
    const std::shared_ptr<KeptAnswers> answers_ = std::make_shared<KeptAnswers>();
    mutable std::mutex mutex_;
    std::shared_ptr<const EvaluationSettings> settings_ =
        std::make_shared<EvaluationSettings>(std::make_shared<configuration::ConfigurationImpl>());
    /// Fire when the session is over; of sessions that have asked for something.
    std::map<const bayeux::BayeuxSession*, std::shared_ptr<CancellationToken>> tokens_;
    std::vector<KeptPtr> kept_; ///< the oldest first
};

const std::map<std::string, AsyncEvalService::Impl::Handler, std::less<>> AsyncEvalService::Impl::kHandlers{
    {"eval", &Impl::eval},     {"feval", &Impl::feval},        {"start", &Impl::start},   {"attach", &Impl::attach},
    {"detach", &Impl::detach}, {"list", &Impl::list},          {"cancel", &Impl::cancel}, {"input", &Impl::input},
    {"forget", &Impl::forget}, {"interrupt", &Impl::interrupt}};

void AsyncEvalService::Impl::handle(const bayeux::BayeuxMessage& message)
{
    if (!message.sender)
        return; // nobody to answer
    Poco::Dynamic::Var tag;
    try {
        static const Object::Ptr none = json::makeObject();
        const auto data = message.data.isEmpty()
                              ? none
                              : json::within(std::string("data"), [&] { return json::asObject(message.data); });
        tag = data->get("tag");
        const auto name = std::string_view(message.channel).substr(message.channel.rfind('/') + 1);
        const auto handler = kHandlers.find(name);
        if (handler == kHandlers.end())
            throw ServiceFault("unknownType", "There is no \"" + std::string(name) + "\" here.");
        json::Members asked(*data);
        asked.allow("tag");
        if (const auto members = (this->*handler->second)({message, asked, tag}))
            reply(message.sender, message.channel, tag, members);
    } catch (...) {
        replyFault(message.sender, message.channel, tag, std::current_exception());
    }
}

void AsyncEvalService::Impl::stop()
{
    std::vector<KeptPtr> kept;
    {
        std::lock_guard lock(mutex_);
        kept.swap(kept_);
    }
    for (const auto& one : kept) {
        if (engine_)
            engine_->cancel(one->task);
        one->evaluation->close();
    }
    pump_->stop();
}

void AsyncEvalService::Impl::configure(std::shared_ptr<configuration::Configuration> configuration)
{
    auto settings = std::make_shared<const EvaluationSettings>(std::move(configuration));
    std::lock_guard lock(mutex_);
    settings_.swap(settings);
}

std::shared_ptr<const EvaluationSettings> AsyncEvalService::Impl::settings() const
{
    std::lock_guard lock(mutex_);
    return settings_;
}

std::shared_ptr<CancellationToken> AsyncEvalService::Impl::tokenOf(const bayeux::SessionPtr& session)
{
    std::shared_ptr<CancellationToken> token;
    {
        std::lock_guard lock(mutex_);
        auto& known = tokens_[session.get()];
        if (!known)
            known = std::make_shared<CancellationToken>();
        token = known;
    }
    // It may have ended before the token was there.
    if (session->isOver())
        sessionRemoved(session, false);
    return token;
}

void AsyncEvalService::Impl::sessionRemoved(const bayeux::SessionPtr& session, bool)
{
    std::shared_ptr<CancellationToken> token;
    {
        std::lock_guard lock(mutex_);
        const auto found = tokens_.find(session.get());
        if (found == tokens_.end())
            return;
        token = std::move(found->second);
        tokens_.erase(found);
    }
    token->cancel();
}

/// Nobody comes back for what has ended.
void AsyncEvalService::Impl::sessionEnded(const std::shared_ptr<http::HttpSession>& session)
{
    answers_->sessionEnded(session->id());
    std::lock_guard lock(mutex_);
    removeIf([&](const Kept& kept, const Evaluation::Summary& summary) {
        return kept.httpSession == session->id() && summary.state == Evaluation::State::ended;
    });
}

void AsyncEvalService::Impl::requireEngine() const
{
    if (!engine_)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
}

/// The folders of a client type, on the search path until the result dies.
std::shared_ptr<void> AsyncEvalService::Impl::pathFor(const std::string& clientType) const
{
    if (clientType.empty() || !shadows_)
        return nullptr;
    try {
        return {nullptr, [shadows = shadows_, folders = shadows_->addToPath(clientType)](std::nullptr_t) {
                    shadows->removeFromPath(folders);
                }};
    } catch (const rqe::EngineError& error) {
        throw faultOf(error);
    } catch (const std::length_error& error) {
        throw ServiceFault("busy", error.what());
    }
}

/// The answer, or, where it is too large for a message, what fits, the whole being kept.
template <class Response>
std::string AsyncEvalService::Impl::answerText(const Poco::Dynamic::Var& tag,
                                               const std::shared_ptr<const Response>& answer,
                                               Object::Ptr (*encode)(const Response& response), KeptAnswers& answers,
                                               const std::string& httpSession)
{
    auto bytes = leastBytesOf(*answer);
    if (bytes <= kMaxReplyBytes) {
        auto text = textOf(tag, encode(*answer));
        bytes = text.size();
        if (bytes <= kMaxReplyBytes)
            return text;
    }
    const auto id = answers.keep(answer, bytes, httpSession);
    return textOf(tag, encodeLarge(*answer, id, bytes));
}

template <class Call, class Response>
Object::Ptr AsyncEvalService::Impl::call(const Request& request, std::unique_ptr<Call> message,
                                         Object::Ptr (*encode)(const Response& response))
{
    const auto clientType = request.data.optionalString("clientType");
    request.data.refuseOthers();
    const auto current = settings();
    current->requirePlace(engine_.get());
    EngineTask::Terms terms;
    terms.maxOutputBytes = current->maxOutputBytes();
    terms.grace = current->grace();
    terms.client = clientOf(*request.sender());
    if (!message->outputChannel.empty())
        terms.streamed = std::make_shared<StreamedOutput>(message->outputChannel, pump_);
    terms.isWanted = [sender = request.sender()] { return !sender->isOver(); };
    terms.keep = pathFor(clientType);
    EngineTask::post(makeTask(engine_, std::move(message), std::move(terms)), *tokenOf(request.sender()))
        .then([sender = request.sender(), channel = request.message.channel, tag = request.tag, encode,
               engine = engine_, answers = answers_](MessageFuture settled) {
            try {
                auto event = bayeux::BayeuxEvent::ofText(
                    channel,
                    answerText(tag, std::shared_ptr<const Response>(static_cast<Response*>(settled.get().release())),
                               encode, *answers, sender->httpSessionId()));
                // While others wait for the interpreter its thread has better things to do than to send.
                if (engine->queued() > 0)
                    sender->deliver(std::move(event));
                else
                    sender->answer(std::move(event));
            } catch (...) {
                replyFault(sender, channel, tag, std::current_exception());
            }
            return true;
        });
    return nullptr;
}

Object::Ptr AsyncEvalService::Impl::eval(const Request& request)
{
    return call(request, decodeEval(request.data), &encodeEvalResponse);
}

Object::Ptr AsyncEvalService::Impl::feval(const Request& request)
{
    return call(request, decodeFEval(request.data), &encodeFEvalResponse);
}

Object::Ptr AsyncEvalService::Impl::start(const Request& request)
{
    auto message = decodeEval(request.data);
    const auto clientType = request.data.optionalString("clientType");
    request.data.refuseOthers();
    settings()->requirePlace(engine_.get());
    auto kept = std::make_shared<Kept>();
    kept->evaluation = std::make_shared<Evaluation>(common::randomHex(kIdBytes), pump_, Evaluation::Limits());
    kept->title = message->code.substr(0, kTitleBytes);
    kept->httpSession = request.sender()->httpSessionId();
    kept->client = clientOf(*request.sender());
    add(kept);
    auto task = std::make_unique<AsyncTask>(kept, std::move(message), engine_, answers_, pathFor(clientType));

    // The id has to be there before the first event.
    auto members = json::makeObject();
    members->set("id", kept->evaluation->id());
    members->set("channel", kept->evaluation->channel());
    reply(request.sender(), request.message.channel, request.tag, members);
    kept->evaluation->attach(request.sender(), 0);
    try {
        kept->task = engine_->post(std::move(task));
    } catch (const rqe::EngineError& error) {
        kept->evaluation->end(failureText(std::make_exception_ptr(faultOf(error))));
    }
    return nullptr;
}

Object::Ptr AsyncEvalService::Impl::attach(const Request& request)
{
    const auto evaluation = find(request)->evaluation;
    const auto after = request.data.optionalInteger("after", 0, 0);
    request.data.refuseOthers();
    const auto summary = evaluation->summary();
    auto members = json::makeObject();
    members->set("id", evaluation->id());
    members->set("channel", evaluation->channel());
    members->set("state", nameOf(summary.state));
    members->set("last", static_cast<std::int64_t>(summary.last));
    auto answer = bayeux::BayeuxEvent::ofText(request.message.channel, textOf(request.tag, members));
    if (!evaluation->attach(request.sender(), static_cast<std::uint64_t>(after), std::move(answer)))
        throw ServiceFault("busy", "The evaluation has " + std::to_string(Evaluation::kMaxReaders) + " readers.");
    return nullptr;
}

Object::Ptr AsyncEvalService::Impl::detach(const Request& request)
{
    const auto kept = find(request);
    request.data.refuseOthers();
    auto members = json::makeObject();
    members->set("detached", kept->evaluation->detach(*request.sender()));
    return members;
}

Object::Ptr AsyncEvalService::Impl::list(const Request& request)
{
    request.data.refuseOthers();
    std::vector<KeptPtr> kept;
    {
        std::lock_guard lock(mutex_);
        removeOld();
        kept = kept_;
    }
    json::Array::Ptr evaluations = new json::Array;
    for (const auto& one : kept) {
        const auto summary = one->evaluation->summary();
        auto object = json::makeObject();
        object->set("id", one->evaluation->id());
        object->set("channel", one->evaluation->channel());
        object->set("code", one->title);
        object->set("state", nameOf(summary.state));
        object->set("wantsInput", summary.wantsInput);
        object->set("first", static_cast<std::int64_t>(summary.first));
        object->set("last", static_cast<std::int64_t>(summary.last));
        evaluations->add(object);
    }
    auto members = json::makeObject();
    members->set("evaluations", evaluations);
    return members;
}

Object::Ptr AsyncEvalService::Impl::cancel(const Request& request)
{
    const auto kept = find(request);
    request.data.refuseOthers();
    requireEngine();
    auto members = json::makeObject();
    members->set("cancelled", engine_->cancel(kept->task) || engine_->interrupt(kept->task));
    return members;
}

Object::Ptr AsyncEvalService::Impl::input(const Request& request)
{
    const bool end = request.data.optionalBool("end", false);
    std::string line = end ? std::string() : request.data.requireString("text");
    const auto kept = find(request);
    request.data.refuseOthers();
    if (!end && !line.ends_with('\n'))
        line += '\n';
    if (!kept->evaluation->answer(std::move(line)))
        throw ServiceFault("notAsked", "The evaluation does not wait for input.");
    return json::makeObject();
}

Object::Ptr AsyncEvalService::Impl::forget(const Request& request)
{
    const auto kept = find(request);
    request.data.refuseOthers();
    if (kept->evaluation->summary().state != Evaluation::State::ended)
        throw ServiceFault("busy", "The evaluation has not ended.");
    std::lock_guard lock(mutex_);
    removeIf([&](const Kept& one, const Evaluation::Summary&) { return &one == kept.get(); });
    return json::makeObject();
}

Object::Ptr AsyncEvalService::Impl::interrupt(const Request& request)
{
    const auto message = decodeInterrupt(request.data);
    request.data.refuseOthers();
    auto members = json::makeObject();
    members->set("interrupted",
                 engine_ && (message->everybody ? engine_->interrupt()
                                                : engine_->interruptClient(clientOf(*request.sender()).name)));
    return members;
}

AsyncEvalService::Impl::KeptPtr AsyncEvalService::Impl::find(const Request& request) const
{
    const auto id = request.data.requireString("id");
    std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(kept_.begin(), kept_.end(), [&](const KeptPtr& kept) { return kept->evaluation->id() == id; });
    if (found == kept_.end())
        throw ServiceFault("notFound", "There is no evaluation \"" + id + "\", or none any more.");
    return *found;
}

void AsyncEvalService::Impl::add(const KeptPtr& kept)
{
    std::lock_guard lock(mutex_);
    removeOld();
    if (kept_.size() >= kMaxEvaluations)
        throw ServiceFault("busy", std::to_string(kMaxEvaluations) + " evaluations have not ended.");
    kept_.push_back(kept);
}

/// With the lock held.
template <class Condition>
void AsyncEvalService::Impl::removeIf(Condition condition)
{
    std::erase_if(kept_, [&](const KeptPtr& kept) {
        if (!condition(*kept, kept->evaluation->summary()))
            return false;
        kept->evaluation->forget();
        return true;
    });
}

/// With the lock held.
void AsyncEvalService::Impl::removeOld()
{
    const auto now = Clock::now();
    std::size_t count = kept_.size();
    std::uint64_t bytes = 0;
    for (const auto& kept : kept_)
        bytes += kept->evaluation->summary().bytes;
    removeIf([&](const Kept&, const Evaluation::Summary& summary) {
        const bool tooMuch = count >= kMaxEvaluations || bytes > kMaxKeptBytes;
        if (summary.state != Evaluation::State::ended || (!tooMuch && now - summary.endedAt < kKeepTime))
            return false;
        --count;
        bytes -= summary.bytes;
        return true;
    });
}

AsyncEvalService::AsyncEvalService(std::shared_ptr<bayeux::BayeuxServer> server,
                                   std::shared_ptr<http::HttpSessionManager> httpSessions,
                                   std::shared_ptr<shadow_files::v1::ShadowService> shadows,
                                   boost::shared_ptr<rqe::RQE> engine)
    : impl_(std::make_shared<Impl>(std::move(shadows), std::move(engine)))
{
    if (httpSessions)
        httpSessions->addListener(impl_);
    if (!server)
        return;
    reservation_ = server->reserve(kReserved);
    listening_ = server->addListener(impl_);
    bayeux::ServiceOptions options;
    options.answersSoon = true;
    registration_ = server->handleService(
        kChannels,
        [weak = std::weak_ptr(impl_)](const auto& message) {
            if (const auto impl = weak.lock())
                impl->handle(message);
            return Poco::Dynamic::Var();
        },
        options);
}

AsyncEvalService::~AsyncEvalService()
{
    registration_.reset();
    listening_.reset();
    impl_->stop();
}

std::shared_ptr<KeptAnswers> AsyncEvalService::answers() const { return impl_->answers(); }

void AsyncEvalService::configure(std::shared_ptr<configuration::Configuration> configuration)
{
    impl_->configure(std::move(configuration));
}

} // namespace connector::interpreter::v1
