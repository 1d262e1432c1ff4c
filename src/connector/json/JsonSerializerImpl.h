#pragma once

#include <cstddef>
#include <map>
#include <shared_mutex>
#include <typeindex>
#include <unordered_map>

#include "connector/json/JsonSerializer.h"

namespace connector::json {

class CONNECTOR_API JsonSerializerImpl final : public JsonSerializer
{
public:
    JsonSerializerImpl();
    ~JsonSerializerImpl() override;

    void registerType(const std::string& typeName, std::type_index type, Encoder encoder, Decoder decoder) override;
    void deregisterType(const std::string& typeName) override;
    bool knows(const std::string& typeName) const override;
    Poco::JSON::Object::Ptr toJson(const Message& message) const override;
    std::unique_ptr<Message> fromJson(const Poco::JSON::Object& object) const override;
    std::string write(const Message& message) const override;
    std::unique_ptr<Message> read(std::string_view text) const override;
    std::shared_ptr<JsonSerializer> getPtr() override;

private:
    struct Type
    {
        std::string name;
        std::type_index index;
        Encoder encode;
        Decoder decode;
    };
    /// Shared with calls that are under way when the type goes.
    using TypePtr = std::shared_ptr<const Type>;
    struct Registration
    {
        TypePtr type;
        std::size_t count = 0;
    };

    mutable std::shared_mutex mutex_;
    std::map<std::string, Registration, std::less<>> byName_;
    std::unordered_map<std::type_index, TypePtr> byClass_;
};

} // namespace connector::json
