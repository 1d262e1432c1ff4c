#pragma once

#include <memory>
#include <string>
#include <typeinfo>
#include <utility>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/core/ConnectorImpl2.h"
#include "platform/rqe/RQE.h"
#include "platform/us/ServiceRegistration.h"

/// The module's service graph: one slot per object, and the three steps that installers are made of. Slots are plain
/// globals: they change only while the framework starts and stops, on the host's thread.
namespace wiring {

/// Keeps the one object of class T alive that the wiring made; named by the class.
template <class T>
std::shared_ptr<T> slot;

/// The host's interpreter engine; empty when the process has none.
extern boost::shared_ptr<rqe::RQE> engineSlot;

/// The registry's registration with the micro-services framework.
extern us::ServiceRegistration<connector::Connector> registryRegistrationSlot;

/// One line per construction, registration and release, on the logger "connector::wiring" at trace level.
void trace(const char* step, const std::type_info& type);
void trace(const char* step, const std::string& name);

/// Makes a T and puts it into its slot; what stood there goes only once the new object is in place. Slots among the
/// arguments are copied, as the interface that the constructor asks for.
template <class T, class... Arguments>
void construct(Arguments&&... arguments)
{
    std::shared_ptr<T> made(new T(std::forward<Arguments>(arguments)...));
    slot<T>.swap(made);
    trace("construct", typeid(T));
}

/// Registers the provider in T's slot with the registry.
template <class T>
void serve(const std::string& name)
{
    slot<connector::ConnectorImpl2>->addServiceProvider(name, std::shared_ptr<connector::ServiceProvider>(slot<T>));
    trace("register", name);
}

/// Empties the slots of a group, in the order given.
template <class... T>
void release()
{
    (..., (slot<T>.reset(), trace("release", typeid(T))));
}

} // namespace wiring
