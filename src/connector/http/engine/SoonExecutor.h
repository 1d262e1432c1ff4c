#pragma once

#include <type_traits>
#include <utility>

#include <boost/asio/execution/blocking.hpp>
#include <boost/asio/execution/context.hpp>

#include "connector/http/engine/Loop.h"

namespace connector::http::engine {

/// Executes on its loop's thread, where it can right after the handler that is running: a stream that is used as Asio's
/// are completes later even what it has at hand, and by way of the system that costs more than most messages take.
class SoonExecutor
{
public:
    explicit SoonExecutor(Loop& loop) noexcept : loop_(&loop) {}

    template <class Work>
    void execute(Work&& work) const
    {
        loop_->runSoon(std::forward<Work>(work));
    }
    boost::asio::execution_context& query(boost::asio::execution::context_t) const noexcept { return loop_->context(); }
    /// As it is anyway: what is executed never runs within the call.
    SoonExecutor require(boost::asio::execution::blocking_t::never_t) const noexcept { return *this; }
    bool operator==(const SoonExecutor& other) const noexcept = default;

private:
    Loop* loop_; ///< outlives what it runs
};

} // namespace connector::http::engine
