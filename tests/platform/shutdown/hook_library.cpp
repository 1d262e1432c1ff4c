// A library that registers a shutdown object of a class of its own.

#include "platform/shutdown/ShutdownRegistry.h"

namespace {

class Hook final : public ShutdownObject
{
public:
    explicit Hook(void (*notify)()) : ShutdownObject("hook"), notify_(notify) {}
    void shutdown() override { notify_(); }

private:
    void (*const notify_)();
};

} // namespace

extern "C" __attribute__((visibility("default"))) void registerHook(void (*notify)())
{
    ShutdownRegistry::RegisterObject(new Hook(notify));
}
