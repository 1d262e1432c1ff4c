#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeindex>
#include <vector>

#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/core/Message.h"

namespace connector::json {

class Members;

/// A JSON text or value that is not what it should be. The message says where ("messages[2].code: …", "byte 17: …") and
/// what was wrong.
class CONNECTOR_API JsonError : public std::invalid_argument
{
public:
    explicit JsonError(const std::string& message);
    ~JsonError() override;
};

/// Turns typed messages into JSON objects and back, by type name. Threads: any.
class CONNECTOR_API JsonSerializer : public std::enable_shared_from_this<JsonSerializer>
{
public:
    using Encoder = std::function<Poco::JSON::Object::Ptr(const Message&)>;
    using Decoder = std::function<std::unique_ptr<Message>(Members&)>;

    virtual ~JsonSerializer() = default;

    /// Registers a message class under the name that stands in a message's "type". Either function may be empty: the
    /// type is then only read or only written. A name or class registered again gets the new functions; a name stays
    /// known until it was deregistered as often as it was registered. Functions run without a lock held. An encoder
    /// makes a new object each time and leaves "type" to the serializer.
    virtual void registerType(const std::string& typeName, std::type_index type, Encoder encoder, Decoder decoder) = 0;
    virtual void deregisterType(const std::string& typeName) = 0;
    virtual bool knows(const std::string& typeName) const = 0;

    /// The object's members and its "type". Throws JsonError for a class that nobody registered or that is not written.
    virtual Poco::JSON::Object::Ptr toJson(const Message& message) const = 0;
    /// Throws JsonError: no "type", an unknown one, one that is not read, whatever the decoder finds, and a member that
    /// it did not ask for. "id" is the sender's.
    virtual std::unique_ptr<Message> fromJson(const Poco::JSON::Object& object) const = 0;

    /// Text in UTF-8 from and to a JSON value, within the limits of JsonText.h.
    virtual std::string write(const Message& message) const = 0;
    virtual std::unique_ptr<Message> read(std::string_view text) const = 0;

    virtual std::shared_ptr<JsonSerializer> getPtr() = 0;
};

/// Registers a group's message types with the serializer while it lives.
class CONNECTOR_API JsonSerialization
{
public:
    virtual ~JsonSerialization();
    JsonSerialization(const JsonSerialization&) = delete;
    JsonSerialization& operator=(const JsonSerialization&) = delete;

protected:
    explicit JsonSerialization(std::shared_ptr<JsonSerializer> serializer);

    /// For constructors of derived classes. What was added is deregistered by the destructor.
    template <class M>
    void add(const std::string& typeName, std::function<Poco::JSON::Object::Ptr(const M&)> encoder,
             std::function<std::unique_ptr<M>(Members&)> decoder)
    {
        JsonSerializer::Encoder encode;
        JsonSerializer::Decoder decode;
        if (encoder)
            encode = [encoder](const Message& message) { return encoder(static_cast<const M&>(message)); };
        if (decoder)
            decode = [decoder](Members& members) -> std::unique_ptr<Message> { return decoder(members); };
        addType(typeName, typeid(M), std::move(encode), std::move(decode));
    }

    const std::shared_ptr<JsonSerializer>& serializer() const noexcept { return serializer_; }

private:
    void addType(const std::string& typeName, std::type_index type, JsonSerializer::Encoder encoder,
                 JsonSerializer::Decoder decoder);

    std::shared_ptr<JsonSerializer> serializer_;
    std::vector<std::string> typeNames_;
};

} // namespace connector::json
