#include "connector/http/engine/Strangers.h"

#include <algorithm>

#include "connector/http/engine/Connection.h"

namespace connector::http::engine {

Strangers::Place::Place(Strangers& strangers, Connection& connection) : strangers_(strangers), connection_(connection)
{
    position_ = strangers_.places_.insert(strangers_.places_.end(), this);
    ++strangers_.count_;
}

Strangers::Place::~Place()
{
    strangers_.held_ -= held_;
    strangers_.places_.erase(position_);
    --strangers_.count_;
}

void Strangers::Place::hold(std::size_t bytes)
{
    if (bytes == held_)
        return;
    strangers_.held_ += bytes;
    strangers_.held_ -= held_;
    held_ = bytes;
    if (strangers_.held_ > kMostHeldBytes)
        strangers_.dismissHoldersBut(*this);
}

bool Strangers::dismissOne()
{
    const auto found =
        std::find_if(places_.begin(), places_.end(), [](const Place* place) { return !place->connection_.isServed(); });
    if (found == places_.end())
        return false;
    (*found)->connection_.close();
    return true;
}

void Strangers::dismissHoldersBut(const Place& spared)
{
    for (auto next = places_.begin(); next != places_.end() && held_ > kMostHeldBytes;) {
        const Place& place = **next++;
        if (&place != &spared && place.held_ > 0)
            place.connection_.close();
    }
}

} // namespace connector::http::engine
