#include <exception>
#include <utility>

#include "connector/common/Log.h"
#include "connector/json/JsonSerializer.h"

namespace connector::json {

JsonError::JsonError(const std::string& message) : std::invalid_argument(message) {}
JsonError::~JsonError() = default;

JsonSerialization::JsonSerialization(std::shared_ptr<JsonSerializer> serializer) : serializer_(std::move(serializer))
{
    if (!serializer_)
        throw std::invalid_argument("A JSON serialization needs a serializer.");
}

JsonSerialization::~JsonSerialization()
{
    for (const auto& name : typeNames_) {
        try {
            serializer_->deregisterType(name);
        } catch (const std::exception& error) {
            common::log("connector.json", common::LogLevel::error,
                        "Cannot deregister the type \"" + name + "\": " + error.what());
        }
    }
}

void JsonSerialization::addType(const std::string& typeName, std::type_index type, JsonSerializer::Encoder encoder,
                                JsonSerializer::Decoder decoder)
{
    typeNames_.reserve(typeNames_.size() + 1);
    serializer_->registerType(typeName, type, std::move(encoder), std::move(decoder));
    typeNames_.push_back(typeName);
}

} // namespace connector::json
