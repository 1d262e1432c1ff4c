#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "connector/container/ContainerMessages.h"

namespace connector::container::v1 {

/// The answers to a container on their way: the last one that arrives completes the response. Each position is answered
/// once, by whichever thread.
class Gathering
{
public:
    /// What becomes of the complete response; empty: it is the promise's value.
    using Leave = std::function<void(std::unique_ptr<ContainerResponse>, Promise<std::unique_ptr<Message>>)>;

    /// Takes the scopes over from the request. It is complete once all are answered and `allSent` was called, so that
    /// answers which are there at once do not complete a half-sent request.
    explicit Gathering(ContainerRequest& request, Leave leave = nullptr)
        : leave_(std::move(leave)), missing_(request.entries.size() + 1)
    {
        response_->id = request.id;
        response_->bare = request.bare;
        response_->scopes = std::move(request.scopes);
        response_->entries.resize(request.entries.size());
        for (std::size_t i = 0; i < request.entries.size(); ++i)
            response_->entries[i].id = request.entries[i].id;
    }

    /// To be called once.
    MessageFuture future() const { return promise_.future(); }

    void answer(std::size_t position, std::unique_ptr<Message> message)
    {
        response_->entries[position].message = std::move(message);
        arrived();
    }

    void fail(std::size_t position, const std::exception_ptr& failure)
    {
        answer(position, std::make_unique<Fault>(failure));
    }

    /// The outcome of a settled future.
    void take(std::size_t position, MessageFuture settled)
    {
        std::unique_ptr<Message> message;
        try {
            message = settled.get();
        } catch (...) {
            message = std::make_unique<Fault>(std::current_exception());
        }
        answer(position, std::move(message));
    }

    void allSent() { arrived(); }

private:
    void arrived()
    {
        if (missing_.fetch_sub(1, std::memory_order_acq_rel) != 1)
            return;
        if (leave_)
            leave_(std::move(response_), std::move(promise_));
        else
            promise_.setValue(std::move(response_));
    }

    std::unique_ptr<ContainerResponse> response_ = std::make_unique<ContainerResponse>();
    const Leave leave_;
    std::atomic<std::size_t> missing_;
    Promise<std::unique_ptr<Message>> promise_;
};

} // namespace connector::container::v1
