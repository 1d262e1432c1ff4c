#include "connector/container/ContainerDispatcherImpl.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "connector/container/Gathering.h"
#include "connector/container/StandingMessages.h"
#include "connector/core/Connector.h"

namespace connector::container::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;
using AddressList = std::shared_ptr<const std::vector<Address>>;

/// How far a message got: to the end of its way, or to an answer that is not there yet.
struct Passed
{
    MessagePtr message;
    MessageFuture later; ///< invalid when `message` is the outcome

    MessageFuture future() && { return later.valid() ? std::move(later) : makeReadyFuture(std::move(message)); }
};

/// Sends `message` through the addresses from `next` on, each getting what the one before answered. An answer of
/// another class than M ends the way. Answers that are there at once are taken without a continuation. Throws what the
/// first failed answer says.
template <class M>
Passed pass(MessagePtr message, const AddressList& addresses, std::size_t next, const std::shared_ptr<Context>& context)
{
    const std::size_t count = addresses ? addresses->size() : 0;
    for (; next < count && dynamic_cast<M*>(message.get()); ++next) {
        Address address = (*addresses)[next];
        auto answer =
            context->connector()->handle(std::move(message), std::move(address), std::shared_ptr<Context>(context));
        if (!answer.isReady())
            return {nullptr, answer.then([addresses, next, context](MessageFuture settled) {
                        return pass<M>(settled.get(), addresses, next + 1, context).future();
                    })};
        message = answer.get();
    }
    return {std::move(message), {}};
}

template <class M>
std::unique_ptr<M> downcast(MessagePtr message)
{
    return std::unique_ptr<M>(static_cast<M*>(message.release()));
}

/// The list with one more, or without the first that is equal; null for an empty one.
AddressList added(const AddressList& list, Address address)
{
    auto changed = list ? std::make_shared<std::vector<Address>>(*list) : std::make_shared<std::vector<Address>>();
    changed->push_back(std::move(address));
    return changed;
}

AddressList removed(const AddressList& list, const Address& address)
{
    if (!list)
        return list;
    auto changed = std::make_shared<std::vector<Address>>(*list);
    const auto found = std::find(changed->begin(), changed->end(), address);
    if (found != changed->end())
        changed->erase(found);
    return changed->empty() ? nullptr : changed;
}

} // namespace

ContainerDispatcherImpl::ContainerDispatcherImpl()
{
    for (const auto& message : standingMessages())
        add(message.type, Mapping{.target = Address{message.service}, .manages = message.manages});
}

MessageFuture ContainerDispatcherImpl::handle(std::unique_ptr<ContainerRequest>&& request, Address&& target,
                                              std::shared_ptr<Context>&& context)
{
    if (!target.empty())
        throw std::invalid_argument("Nothing can follow the container dispatcher in an address: " + toString(target));

    Addresses before;
    Addresses after;
    {
        std::shared_lock lock(mutex_);
        before = before_;
        after = after_;
    }
    if (!before)
        return dispatch(std::move(request), after, context);
    try {
        auto passed = pass<ContainerRequest>(std::move(request), before, 0, context);
        if (!passed.later.valid())
            return goOn(std::move(passed.message), after, context);
        auto self = std::static_pointer_cast<ContainerDispatcherImpl>(shared_from_this());
        return passed.later.then(
            [self, after, context](MessageFuture answer) { return self->goOn(answer.get(), after, context); });
    } catch (...) {
        return makeFailedFuture<MessagePtr>(std::current_exception());
    }
}

/// With what came out of the addresses before: the request, or an answer in its place.
MessageFuture ContainerDispatcherImpl::goOn(MessagePtr message, const Addresses& after,
                                            const std::shared_ptr<Context>& context)
{
    if (dynamic_cast<ContainerRequest*>(message.get()))
        return dispatch(downcast<ContainerRequest>(std::move(message)), after, context);
    return pass<ContainerResponse>(std::move(message), after, 0, context).future();
}

MessageFuture ContainerDispatcherImpl::dispatch(std::unique_ptr<ContainerRequest> request, const Addresses& after,
                                                const std::shared_ptr<Context>& context)
{
    Gathering::Leave leave;
    if (after)
        leave = [after, context](MessagePtr response, Promise<MessagePtr> promise) {
            try {
                auto passed = pass<ContainerResponse>(std::move(response), after, 0, context);
                if (passed.later.valid())
                    passed.later.forwardTo(std::move(promise));
                else
                    promise.setValue(std::move(passed.message));
            } catch (...) {
                promise.setException(std::current_exception());
            }
        };
    auto gathering = std::make_shared<Gathering>(*request, std::move(leave));
    auto result = gathering->future();

    struct Together
    {
        std::shared_ptr<const Mapping> mapping;
        std::unique_ptr<ContainerRequest> request;
        std::vector<std::size_t> positions;
    };
    std::map<std::string, Together> together;

    const auto send = [&](const std::shared_ptr<const Mapping>& mapping, MessagePtr message, int count, auto received) {
        auto& unanswered = *mapping->unanswered;
        if (mapping->limit > 0 && unanswered.fetch_add(count) + count > mapping->limit) {
            unanswered.fetch_sub(count);
            throw ServiceFault("busy", "At most " + std::to_string(mapping->limit) +
                                           " messages of this type may be without an answer at a time.");
        }
        if (mapping->limit <= 0)
            count = 0;
        context->connector()
            ->handle(std::move(message), Address(mapping->target), std::shared_ptr<Context>(context))
            .then([mapping, count, received](MessageFuture answer) {
                mapping->unanswered->fetch_sub(count);
                received(std::move(answer));
                return true;
            });
    };

    for (std::size_t i = 0; i < request->entries.size(); ++i) {
        auto& entry = request->entries[i];
        try {
            // A type that is not for clients is none to them, however its message is made.
            const auto mapping = find(entry.type);
            if (mapping && mapping->manages)
                requireManagement(entry.type, *context);
            if (entry.failure && (mapping || entry.type.empty()))
                std::rethrow_exception(entry.failure);
            if (!mapping)
                throw ServiceFault("unknownType", "No service takes messages of type \"" + entry.type + "\".");
            if (mapping->together) {
                auto& group = together[entry.type];
                if (!group.request) {
                    group.mapping = mapping;
                    group.request = std::make_unique<ContainerRequest>();
                    group.request->id = request->id;
                    group.request->clientType = request->clientType;
                }
                group.positions.push_back(i);
                group.request->entries.push_back(std::move(entry));
                continue;
            }
            send(mapping, std::move(entry.message), 1,
                 [gathering, i](MessageFuture answer) { gathering->take(i, std::move(answer)); });
        } catch (...) {
            gathering->fail(i, std::current_exception());
        }
    }

    for (auto& [type, group] : together) {
        const auto positions = group.positions;
        const auto failAll = [gathering, positions](const std::exception_ptr& failure) {
            for (const auto position : positions)
                gathering->fail(position, failure);
        };
        try {
            send(group.mapping, std::move(group.request), static_cast<int>(positions.size()),
                 [gathering, positions, failAll](MessageFuture answer) {
                     std::unique_ptr<ContainerResponse> response;
                     try {
                         auto message = answer.get();
                         auto* typed = dynamic_cast<ContainerResponse*>(message.get());
                         if (!typed || typed->entries.size() != positions.size())
                             throw std::runtime_error("A container was not answered message by message.");
                         response = downcast<ContainerResponse>(std::move(message));
                     } catch (...) {
                         failAll(std::current_exception());
                         return;
                     }
                     for (std::size_t k = 0; k < positions.size(); ++k)
                         gathering->answer(positions[k], std::move(response->entries[k].message));
                 });
        } catch (...) {
            failAll(std::current_exception());
        }
    }

    gathering->allSent();
    return result;
}

std::shared_ptr<const ContainerDispatcherImpl::Mapping> ContainerDispatcherImpl::find(const std::string& type) const
{
    std::shared_lock lock(mutex_);
    const auto found = mappings_.find(type);
    return found == mappings_.end() ? nullptr : found->second.back();
}

void ContainerDispatcherImpl::add(const std::string& type, Mapping mapping)
{
    if (type.empty() || mapping.target.empty())
        throw std::invalid_argument("A message mapping needs a type and an address: \"" + type + "\"");
    auto entry = std::make_shared<const Mapping>(std::move(mapping));
    std::unique_lock lock(mutex_);
    mappings_[type].push_back(std::move(entry));
}

void ContainerDispatcherImpl::registerMessageMapping(const std::string& type, Address target, int limit)
{
    add(type, Mapping{.target = std::move(target), .limit = limit});
}

void ContainerDispatcherImpl::registerMessageContainerMapping(const std::string& type, Address target, int limit)
{
    add(type, Mapping{.target = std::move(target), .together = true, .limit = limit});
}

void ContainerDispatcherImpl::deregisterMessageMapping(const std::string& type)
{
    std::unique_lock lock(mutex_);
    const auto found = mappings_.find(type);
    if (found == mappings_.end())
        return;
    found->second.erase(found->second.begin());
    if (found->second.empty())
        mappings_.erase(found);
}

void ContainerDispatcherImpl::registerBeforeAddress(Address address)
{
    std::unique_lock lock(mutex_);
    before_ = added(before_, std::move(address));
}

void ContainerDispatcherImpl::deregisterBeforeAddress(Address address)
{
    std::unique_lock lock(mutex_);
    before_ = removed(before_, address);
}

void ContainerDispatcherImpl::registerAfterAddress(Address address)
{
    std::unique_lock lock(mutex_);
    after_ = added(after_, std::move(address));
}

void ContainerDispatcherImpl::deregisterAfterAddress(Address address)
{
    std::unique_lock lock(mutex_);
    after_ = removed(after_, address);
}

MessageMapProvider::MessageMapProvider(std::shared_ptr<ContainerDispatcher> dispatcher)
    : dispatcher_(std::move(dispatcher))
{}

MessageMapProvider::~MessageMapProvider()
{
    for (const auto& type : types_)
        dispatcher_->deregisterMessageMapping(type);
    for (const auto& address : before_)
        dispatcher_->deregisterBeforeAddress(address);
    for (const auto& address : after_)
        dispatcher_->deregisterAfterAddress(address);
}

void MessageMapProvider::map(const std::string& type, const Address& target, int limit)
{
    dispatcher_->registerMessageMapping(type, target, limit);
    types_.push_back(type);
}

void MessageMapProvider::mapContainer(const std::string& type, const Address& target, int limit)
{
    dispatcher_->registerMessageContainerMapping(type, target, limit);
    types_.push_back(type);
}

void MessageMapProvider::passBefore(const Address& address)
{
    dispatcher_->registerBeforeAddress(address);
    before_.push_back(address);
}

void MessageMapProvider::passAfter(const Address& address)
{
    dispatcher_->registerAfterAddress(address);
    after_.push_back(address);
}

} // namespace connector::container::v1
