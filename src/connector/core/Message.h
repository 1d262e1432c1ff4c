#pragma once

#include "connector/Export.h"

namespace connector {

/// Base of everything that travels between providers, as `std::unique_ptr<Message>`.
class CONNECTOR_API Message
{
public:
    virtual ~Message();

protected:
    Message() = default;
    Message(const Message&) = default;
    Message& operator=(const Message&) = default;
};

} // namespace connector
