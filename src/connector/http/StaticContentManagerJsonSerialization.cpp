#include "connector/http/StaticContentManagerJsonSerialization.h"

#include "connector/http/StaticContentManagerMessages.h"
#include "connector/json/Members.h"

namespace connector::http {

namespace {

using json::Object;

Object::Ptr prefixObject(const std::string& prefix)
{
    auto object = json::makeObject();
    object->set("prefix", prefix);
    return object;
}

Object::Ptr rootObject(const std::string& prefix, const std::string& folder, bool userFiles)
{
    auto object = prefixObject(prefix);
    object->set("folder", folder);
    object->set("userFiles", userFiles);
    return object;
}

Object::Ptr rootObject(const ContentRoot& root) { return rootObject(root.prefix, root.folder, root.userFiles); }

} // namespace

StaticContentManagerJsonSerialization::StaticContentManagerJsonSerialization(
    std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<AddContentRoot>(
        "AddContentRoot",
        [](const AddContentRoot& message) { return rootObject(message.prefix, message.folder, message.userFiles); },
        [](json::Members& members) {
            return std::make_unique<AddContentRoot>(members.requireString("prefix"), members.requireString("folder"),
                                                    members.optionalBool("userFiles", true));
        });
    add<AddContentRootResponse>("AddContentRootResponse",
                                [](const AddContentRootResponse& message) { return rootObject(message.root); }, {});
    add<RemoveContentRoot>(
        "RemoveContentRoot", [](const RemoveContentRoot& message) { return prefixObject(message.prefix); },
        [](json::Members& members) { return std::make_unique<RemoveContentRoot>(members.requireString("prefix")); });
    add<RemoveContentRootResponse>(
        "RemoveContentRootResponse",
        [](const RemoveContentRootResponse& message) { return prefixObject(message.prefix); }, {});
    add<ListContentRoots>(
        "ListContentRoots", [](const ListContentRoots&) { return json::makeObject(); },
        [](json::Members&) { return std::make_unique<ListContentRoots>(); });
    add<ListContentRootsResponse>("ListContentRootsResponse",
                                  [](const ListContentRootsResponse& message) {
                                      auto object = json::makeObject();
                                      Poco::JSON::Array::Ptr roots = new Poco::JSON::Array;
                                      for (const auto& root : message.roots)
                                          roots->add(rootObject(root));
                                      object->set("roots", roots);
                                      return object;
                                  },
                                  {});
}

} // namespace connector::http
