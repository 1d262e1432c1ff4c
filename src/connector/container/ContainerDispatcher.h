#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connector/container/ContainerMessages.h"

namespace connector::container::v1 {

/// Sends each message of a container to the address that its type is mapped to, and gathers the answers. Threads: any,
/// also while containers are on their way.
class CONNECTOR_API ContainerDispatcher : public std::enable_shared_from_this<ContainerDispatcher>
{
public:
    virtual ~ContainerDispatcher() = default;

    /// Answers with a ContainerResponse, one entry per message in the same order, once all are answered. What is left
    /// of `target` behind the dispatcher must be empty (std::invalid_argument).
    virtual MessageFuture handle(std::unique_ptr<ContainerRequest>&& request, Address&& target,
                                 std::shared_ptr<Context>&& context) = 0;

    /// Messages of the type go to `target` one by one. `limit`: how many of them may be without an answer at a time,
    /// beyond it they are refused with the fault "busy"; 0 for no limit. A type mapped again gets the new mapping, and
    /// deregistering it then takes the oldest one away: a provider may be replaced by its successor at any moment.
    virtual void registerMessageMapping(const std::string& type, Address target, int limit) = 0;
    /// All messages of the type in one request go to `target` together, as a ContainerRequest.
    virtual void registerMessageContainerMapping(const std::string& type, Address target, int limit) = 0;
    virtual void deregisterMessageMapping(const std::string& type) = 0;

    /// Every request passes this address before it is dispatched, in the order of registration. A provider that fails
    /// fails the request; what others have put on is in the request's scopes and ends with it.
    virtual void registerBeforeAddress(Address address) = 0;
    virtual void deregisterBeforeAddress(Address address) = 0;
    /// Every response passes this address before it leaves, in the order of registration, on the thread that gave the
    /// last answer. Providers that answer at once cost no future but their own answer's.
    virtual void registerAfterAddress(Address address) = 0;
    virtual void deregisterAfterAddress(Address address) = 0;
    virtual std::shared_ptr<ContainerDispatcher> getPtr() = 0;
};

/// Maps a family's message types while it lives.
class CONNECTOR_API MessageMapProvider
{
public:
    virtual ~MessageMapProvider();
    MessageMapProvider(const MessageMapProvider&) = delete;
    MessageMapProvider& operator=(const MessageMapProvider&) = delete;

protected:
    explicit MessageMapProvider(std::shared_ptr<ContainerDispatcher> dispatcher);
    void map(const std::string& type, const Address& target, int limit = 0);
    void mapContainer(const std::string& type, const Address& target, int limit = 0);
    /// Every container passes the address before it is dispatched, or its answers before they leave.
    void passBefore(const Address& address);
    void passAfter(const Address& address);

private:
    std::shared_ptr<ContainerDispatcher> dispatcher_;
    std::vector<std::string> types_;
    std::vector<Address> before_;
    std::vector<Address> after_;
};

} // namespace connector::container::v1
