#include "connector/security/NonceJsonSerialization.h"

#include "connector/json/Members.h"
#include "connector/security/NonceMessages.h"

namespace connector::security::v1 {

namespace {

using json::Object;

template <class Value>
Object::Ptr objectWith(const char* name, const Value& value)
{
    auto object = json::makeObject();
    object->set(name, value);
    return object;
}

} // namespace

NonceJsonSerialization::NonceJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<CreateNonce>(
        "CreateNonce",
        [](const CreateNonce& message) {
            auto object = objectWith("purpose", message.purpose);
            object->set("lifeSeconds", message.lifeSeconds);
            return object;
        },
        [](json::Members& members) {
            auto message = std::make_unique<CreateNonce>();
            message->purpose = members.requireString("purpose");
            message->lifeSeconds = members.optionalInteger("lifeSeconds", message->lifeSeconds);
            return message;
        });
    add<CreateNonceResponse>("CreateNonceResponse",
                             [](const CreateNonceResponse& message) { return objectWith("nonce", message.nonce); }, {});
    add<RedeemNonce>(
        "RedeemNonce",
        [](const RedeemNonce& message) {
            auto object = objectWith("nonce", message.nonce);
            object->set("purpose", message.purpose);
            return object;
        },
        [](json::Members& members) {
            auto message = std::make_unique<RedeemNonce>();
            message->nonce = members.requireString("nonce");
            message->purpose = members.requireString("purpose");
            return message;
        });
    add<RedeemNonceResponse>("RedeemNonceResponse",
                             [](const RedeemNonceResponse& message) { return objectWith("valid", message.valid); }, {});
    add<CreateEntryUrl>(
        "CreateEntryUrl",
        [](const CreateEntryUrl& message) {
            auto object = objectWith("baseUrl", message.baseUrl);
            object->set("lifeSeconds", message.lifeSeconds);
            return object;
        },
        [](json::Members& members) {
            auto message = std::make_unique<CreateEntryUrl>();
            message->baseUrl = members.requireString("baseUrl");
            message->lifeSeconds = members.optionalInteger("lifeSeconds", message->lifeSeconds);
            return message;
        });
    add<CreateEntryUrlResponse>("CreateEntryUrlResponse",
                                [](const CreateEntryUrlResponse& message) { return objectWith("url", message.url); },
                                {});
}

} // namespace connector::security::v1
