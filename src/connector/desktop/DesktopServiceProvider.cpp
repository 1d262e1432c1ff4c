#include "connector/desktop/DesktopServiceProvider.h"

#include <stdexcept>
#include <utility>

#include "connector/container/ContainerMessages.h"
#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"
#include "connector/desktop/EngineCall.h"
#include "connector/desktop/LookDesk.h"
#include "connector/desktop/StateNews.h"
#include "connector/desktop/VariableWatch.h"
#include "connector/information/InformationMessages.h"

namespace connector::desktop::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

/// How much code in front of the cursor is looked at, in code points.
constexpr std::size_t kMaxCode = 65'536;

/// What "~" means to the client. Throws ServiceFault "unavailable" when nobody knows.
std::string homeOf(const std::shared_ptr<Context>& context)
{
    using namespace information::v1;
    auto answer = context->connector()->handle(std::make_unique<GetUserHomeDir>(), Address{"connector/v1/information"},
                                               std::shared_ptr<Context>(context));
    if (!answer.isReady())
        throw ServiceFault("unavailable", "The home folder is not known yet.");
    return dynamic_cast<const GetUserHomeDirResponse&>(*answer.get()).path;
}

/// Work must be copyable, which messages are not: the request is shared with it.
template <class M>
std::shared_ptr<M> shared(std::unique_ptr<M>& message)
{
    return std::shared_ptr<M>(std::move(message));
}

template <class M>
std::unique_ptr<M> downcast(MessagePtr&& message)
{
    return std::unique_ptr<M>(static_cast<M*>(message.release()));
}

bool beginsCodePoint(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }

std::size_t countCodePoints(std::string_view text)
{
    std::size_t count = 0;
    for (const char byte : text)
        count += beginsCodePoint(byte);
    return count;
}

/// Where in the UTF-8 the code point with this number begins, or the text ends.
std::size_t byteOffset(std::string_view text, std::size_t codePoint)
{
    std::size_t offset = 0;
    for (; offset < text.size(); ++offset)
        if (beginsCodePoint(text[offset]) && codePoint-- == 0)
            return offset;
    if (codePoint > 0)
        throw std::invalid_argument("The cursor is " + std::to_string(codePoint) + " characters beyond the text.");
    return offset;
}

MessagePtr completionOf(rqe::Interpreter& interpreter, const TabCompletion& request, std::size_t cursor)
{
    auto found = interpreter.complete(request.text, cursor);
    auto answer = std::make_unique<TabCompletionResponse>();
    answer->replaceFrom = countCodePoints(std::string_view(request.text).substr(0, found.replaceFrom));
    answer->total = found.candidates.size();
    answer->candidates = std::move(found.candidates);
    if (answer->candidates.size() > request.limit)
        answer->candidates.resize(request.limit);
    return answer;
}

} // namespace

MessageFuture Workspace::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                   Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleWorkspace(downcast<Workspace>(std::move(message)), std::move(address), std::move(context));
}

MessageFuture Variable::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                  Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleVariable(downcast<Variable>(std::move(message)), std::move(address), std::move(context));
}

MessageFuture SetVariable::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                     Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleSetVariable(downcast<SetVariable>(std::move(message)), std::move(address),
                                       std::move(context));
}

MessageFuture ClearVariable::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                       Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleClearVariable(downcast<ClearVariable>(std::move(message)), std::move(address),
                                         std::move(context));
}

MessageFuture VariableChange::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                        Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleVariableChange(downcast<VariableChange>(std::move(message)), std::move(address),
                                          std::move(context));
}

MessageFuture TabCompletion::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                       Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleTabCompletion(downcast<TabCompletion>(std::move(message)), std::move(address),
                                         std::move(context));
}

MessageFuture CurrentFolder::deliverTo(std::shared_ptr<DesktopServiceProvider> provider, MessagePtr&& message,
                                       Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleCurrentFolder(downcast<CurrentFolder>(std::move(message)), std::move(address),
                                         std::move(context));
}

DesktopServiceProviderImpl::DesktopServiceProviderImpl(boost::shared_ptr<rqe::RQE> engine)
    : engine_(std::move(engine)), looks_(std::make_shared<LookDesk>(engine_)),
      watch_(std::make_shared<VariableWatch>(engine_)), news_(std::make_shared<StateNews>(engine_, watch_))
{}

MessageFuture DesktopServiceProviderImpl::deliver(MessagePtr&& message, Address&& address,
                                                  std::shared_ptr<Context>&& context)
{
    auto* container = dynamic_cast<container::v1::ContainerRequest*>(message.get());
    if (!container)
        return DesktopServiceProvider::deliver(std::move(message), std::move(address), std::move(context));
    bool afterOthers = false;
    for (const auto& entry : container->entries) {
        if (auto* look = dynamic_cast<LookRequest*>(entry.message.get()))
            look->inOrder = afterOthers;
        else
            afterOthers = true;
    }
    return makeReadyFuture(std::move(message));
}

MessageFuture DesktopServiceProviderImpl::look(const LookRequest& request, const std::shared_ptr<Context>& context,
                                               EngineWork work)
{
    return request.inOrder ? callEngine(engine_, context, std::move(work)) : looks_->ask(context, std::move(work));
}

void DesktopServiceProviderImpl::starting()
{
    watch_->start();
    news_->start();
}

void DesktopServiceProviderImpl::stopped()
{
    looks_->stop();
    watch_->stop();
    news_->stop();
}

MessageFuture DesktopServiceProviderImpl::handleWorkspace(std::unique_ptr<Workspace>&& message, Address&&,
                                                          std::shared_ptr<Context>&& context)
{
    const std::shared_ptr<Workspace> request = shared(message);
    news_->listed();
    return look(*request, context, [request](rqe::Interpreter& interpreter) -> MessagePtr {
        auto answer = std::make_unique<WorkspaceResponse>();
        answer->page = interpreter.listVariables(request->pattern, request->offset, request->limit);
        return answer;
    });
}

MessageFuture DesktopServiceProviderImpl::handleVariable(std::unique_ptr<Variable>&& message, Address&&,
                                                         std::shared_ptr<Context>&& context)
{
    const std::shared_ptr<Variable> request = shared(message);
    auto work = [request](rqe::Interpreter& interpreter) -> MessagePtr {
        auto answer = std::make_unique<VariableResponse>();
        answer->view = interpreter.inspect(request->query);
        answer->path = request->query.path;
        return answer;
    };
    // Drawing a picture is more than a look.
    return request->query.picture ? callEngine(engine_, context, std::move(work))
                                  : look(*request, context, std::move(work));
}

MessageFuture DesktopServiceProviderImpl::handleSetVariable(std::unique_ptr<SetVariable>&& message, Address&&,
                                                            std::shared_ptr<Context>&& context)
{
    return callEngine(engine_, context, [request = shared(message)](rqe::Interpreter& interpreter) -> MessagePtr {
        if (request->path.empty())
            interpreter.setVariable(request->name, *request->value);
        else
            interpreter.setInside(request->name, request->path, *request->value);
        return std::make_unique<SetVariableResponse>();
    });
}

MessageFuture DesktopServiceProviderImpl::handleClearVariable(std::unique_ptr<ClearVariable>&& message, Address&&,
                                                              std::shared_ptr<Context>&& context)
{
    return callEngine(engine_, context, [request = shared(message)](rqe::Interpreter& interpreter) -> MessagePtr {
        return std::make_unique<ClearVariableResponse>(interpreter.clearVariable(request->name));
    });
}

MessageFuture DesktopServiceProviderImpl::handleVariableChange(std::unique_ptr<VariableChange>&& message, Address&&,
                                                               std::shared_ptr<Context>&& context)
{
    if (message->subscribe)
        return watch_->ask(*message, context);
    return callEngine(engine_, context, [](rqe::Interpreter&) { return std::make_unique<VariableChangeResponse>(); });
}

MessageFuture DesktopServiceProviderImpl::handleTabCompletion(std::unique_ptr<TabCompletion>&& message, Address&&,
                                                              std::shared_ptr<Context>&& context)
{
    const std::size_t cursor = message->cursor ? byteOffset(message->text, *message->cursor) : message->text.size();
    if (countCodePoints(std::string_view(message->text).substr(0, cursor)) > kMaxCode)
        throw std::invalid_argument("More than " + std::to_string(kMaxCode) +
                                    " characters stand in front of the cursor.");
    const std::shared_ptr<TabCompletion> request = shared(message);
    return look(*request, context, [request, cursor](rqe::Interpreter& interpreter) {
        return completionOf(interpreter, *request, cursor);
    });
}

MessageFuture DesktopServiceProviderImpl::handleCurrentFolder(std::unique_ptr<CurrentFolder>&& message, Address&&,
                                                              std::shared_ptr<Context>&& context)
{
    if (message->path && (*message->path == "~" || message->path->starts_with("~/")))
        message->path->replace(0, 1, homeOf(context));
    return callEngine(engine_, context, [request = shared(message)](rqe::Interpreter& interpreter) -> MessagePtr {
        if (request->path)
            interpreter.setCurrentFolder(*request->path);
        return std::make_unique<CurrentFolderResponse>(interpreter.currentFolder());
    });
}

} // namespace connector::desktop::v1
