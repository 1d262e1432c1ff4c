#include "connector/container/ContainerDispatcherImpl.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "connector/core/Connector.h"

namespace connector::container::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

/// Sends `message` through the addresses from `next` on, each getting what the one before answered. An answer of
/// another class than M ends the way.
template <class M>
MessageFuture pass(MessagePtr message, std::shared_ptr<const std::vector<Address>> addresses, std::size_t next,
                   const std::shared_ptr<Context>& context)
{
    if (next == addresses->size() || !dynamic_cast<M*>(message.get()))
        return makeReadyFuture(std::move(message));
    Address address = (*addresses)[next];
    return context->connector()
        ->handle(std::move(message), std::move(address), std::shared_ptr<Context>(context))
        .then([addresses, next, context](MessageFuture answer) {
            return pass<M>(answer.get(), addresses, next + 1, context);
        });
}

template <class M>
std::unique_ptr<M> downcast(MessagePtr message)
{
    return std::unique_ptr<M>(static_cast<M*>(message.release()));
}

void removeFirst(std::vector<Address>& addresses, const Address& address)
{
    const auto found = std::find(addresses.begin(), addresses.end(), address);
    if (found != addresses.end())
        addresses.erase(found);
}

} // namespace

/// The answers on their way: the last one that arrives completes the response.
struct ContainerDispatcherImpl::Gathering
{
    std::unique_ptr<ContainerResponse> response = std::make_unique<ContainerResponse>();
    std::atomic<std::size_t> missing{0};
    Promise<MessagePtr> promise;

    /// Each position is answered once, by whichever thread.
    void answer(std::size_t position, MessagePtr message)
    {
        response->entries[position].message = std::move(message);
        arrived(1);
    }

    void arrived(std::size_t count)
    {
        if (missing.fetch_sub(count, std::memory_order_acq_rel) == count)
            promise.setValue(std::move(response));
    }
};

MessageFuture ContainerDispatcherImpl::handle(std::unique_ptr<ContainerRequest>&& request, Address&& target,
                                              std::shared_ptr<Context>&& context)
{
    if (!target.empty())
        throw std::invalid_argument("Nothing can follow the container dispatcher in an address: " + toString(target));

    std::shared_ptr<const std::vector<Address>> before;
    std::shared_ptr<const std::vector<Address>> after;
    {
        std::shared_lock lock(mutex_);
        if (before_.empty() && after_.empty()) {
            lock.unlock();
            return dispatch(std::move(request), context);
        }
        before = std::make_shared<const std::vector<Address>>(before_);
        after = std::make_shared<const std::vector<Address>>(after_);
    }

    auto self = std::static_pointer_cast<ContainerDispatcherImpl>(shared_from_this());
    return pass<ContainerRequest>(std::move(request), before, 0, context)
        .then([self, context](MessageFuture answer) -> MessageFuture {
            auto message = answer.get();
            if (dynamic_cast<ContainerRequest*>(message.get()))
                return self->dispatch(downcast<ContainerRequest>(std::move(message)), context);
            return makeReadyFuture(std::move(message));
        })
        .then([after, context](MessageFuture answer) {
            return pass<ContainerResponse>(answer.get(), after, 0, context);
        });
}

MessageFuture ContainerDispatcherImpl::dispatch(std::unique_ptr<ContainerRequest> request,
                                                const std::shared_ptr<Context>& context)
{
    auto gathering = std::make_shared<Gathering>();
    auto result = gathering->promise.future();
    auto& answers = gathering->response->entries;
    gathering->response->id = request->id;
    answers.resize(request->entries.size());
    // One more than there are messages, so that answers which are there at once do not complete a half-sent request.
    gathering->missing = request->entries.size() + 1;

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
        answers[i].id = entry.id;
        try {
            if (entry.failure)
                std::rethrow_exception(entry.failure);
            const auto mapping = find(entry.type);
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
            send(mapping, std::move(entry.message), 1, [gathering, i](MessageFuture answer) {
                try {
                    gathering->answer(i, answer.get());
                } catch (...) {
                    gathering->answer(i, std::make_unique<Fault>(std::current_exception()));
                }
            });
        } catch (...) {
            gathering->answer(i, std::make_unique<Fault>(std::current_exception()));
        }
    }

    for (auto& [type, group] : together) {
        const auto positions = group.positions;
        const auto failAll = [gathering, positions](const std::exception_ptr& failure) {
            for (const auto position : positions)
                gathering->answer(position, std::make_unique<Fault>(failure));
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

    gathering->arrived(1);
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
    add(type, Mapping{std::move(target), false, limit});
}

void ContainerDispatcherImpl::registerMessageContainerMapping(const std::string& type, Address target, int limit)
{
    add(type, Mapping{std::move(target), true, limit});
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
    before_.push_back(std::move(address));
}

void ContainerDispatcherImpl::deregisterBeforeAddress(Address address)
{
    std::unique_lock lock(mutex_);
    removeFirst(before_, address);
}

void ContainerDispatcherImpl::registerAfterAddress(Address address)
{
    std::unique_lock lock(mutex_);
    after_.push_back(std::move(address));
}

void ContainerDispatcherImpl::deregisterAfterAddress(Address address)
{
    std::unique_lock lock(mutex_);
    removeFirst(after_, address);
}

MessageMapProvider::MessageMapProvider(std::shared_ptr<ContainerDispatcher> dispatcher)
    : dispatcher_(std::move(dispatcher))
{}

MessageMapProvider::~MessageMapProvider()
{
    for (const auto& type : types_)
        dispatcher_->deregisterMessageMapping(type);
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

} // namespace connector::container::v1
