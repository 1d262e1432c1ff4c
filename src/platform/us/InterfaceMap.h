#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/us/ServiceInterface.h"

namespace us {

/// A service object as seen through each of its interfaces: interface id to a pointer at that interface's sub-object.
/// Build it with MakeInterfaceMap; a pointer at the implementation itself is wrong under multiple inheritance.
using InterfaceMap = std::map<std::string, std::shared_ptr<void>>;
using InterfaceMapPtr = std::shared_ptr<InterfaceMap>;
using InterfaceMapConstPtr = std::shared_ptr<const InterfaceMap>;

template <class... Interfaces, class Impl>
InterfaceMapPtr MakeInterfaceMap(const std::shared_ptr<Impl>& object)
{
    static_assert(sizeof...(Interfaces) > 0, "name the interfaces to offer");
    auto map = std::make_shared<InterfaceMap>();
    (map->emplace(::us_service_interface_iid<Interfaces>(), std::shared_ptr<Interfaces>(object)), ...);
    return map;
}

/// The object under that id; empty when it is not offered.
inline std::shared_ptr<void> ExtractInterface(const InterfaceMapConstPtr& map, const std::string& interfaceId)
{
    if (!map)
        return nullptr;
    const auto found = map->find(interfaceId);
    return found == map->end() ? nullptr : found->second;
}

template <class Interface>
std::shared_ptr<Interface> ExtractInterface(const InterfaceMapConstPtr& map)
{
    return std::static_pointer_cast<Interface>(ExtractInterface(map, ::us_service_interface_iid<Interface>()));
}

} // namespace us
