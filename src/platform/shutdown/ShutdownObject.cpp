#include "platform/shutdown/ShutdownObject.h"

#include <cstdlib>

ShutdownObject::ShutdownObject(const char* name) : name_(name != nullptr ? name : "") {}

ShutdownObject::~ShutdownObject() = default;

bool ShutdownObject::exitState(bool exiting) const { return exiting; }

bool ShutdownObject::isOkToExit() const { return true; }

void ShutdownObject::closeAllWindows() const {}

void ShutdownObject::shutdown() {}

void ShutdownObject::terminate() const {}

void* ShutdownObject::operator new(std::size_t size) noexcept { return std::malloc(size); }

void ShutdownObject::operator delete(void* memory) noexcept { std::free(memory); }
