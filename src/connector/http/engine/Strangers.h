#pragma once

#include <atomic>
#include <cstddef>
#include <list>

namespace connector::http::engine {

class Connection;

/// The connections of one loop whose clients nobody has let in yet, the oldest first. Whoever is to be let in asks soon
/// after it came, so that the oldest are the first to go when there are too many connections, or when together they
/// hold too much of what they sent. Its loop's thread, but for `count`.
class Strangers
{
public:
    /// Bytes of unfinished requests, beyond the little that every connection may hold.
    static constexpr std::size_t kMostHeldBytes = 8u << 20;

    /// One of them, while this lives.
    class Place
    {
    public:
        Place(Strangers& strangers, Connection& connection);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// The connection holds so many bytes. Others are closed when all hold too much together.
        void hold(std::size_t bytes);

    private:
        friend class Strangers;
        Strangers& strangers_;
        Connection& connection_;
        std::size_t held_ = 0;
        std::list<Place*>::iterator position_;
    };

    /// Any thread.
    std::size_t count() const noexcept { return count_.load(std::memory_order_relaxed); }
    /// Closes the oldest one that does not wait for an answer; false when there is none.
    bool dismissOne();

private:
    void dismissHoldersBut(const Place& spared);

    std::list<Place*> places_;
    std::size_t held_ = 0;
    std::atomic<std::size_t> count_{0};
};

} // namespace connector::http::engine
