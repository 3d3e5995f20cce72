// Receivers and listeners: the registry that keeps the library from calling a
// receiver that no longer exists, and the base operations.
#include <zel/engine.h>

#include <mutex>
#include <unordered_set>

#include "api/receiver_registry.h"

namespace {

// Receivers may be made and destroyed on any thread.
struct Registry {
    std::mutex lock;
    std::unordered_set<const void *> live;
};

Registry &registry()
{
    static Registry r;
    return r;
}

} // namespace

void zel::forget_receiver(const void *key)
{
    std::lock_guard<std::mutex> guard(registry().lock);
    registry().live.erase(key);
}

CZelReceiver::CZelReceiver()
{
    std::lock_guard<std::mutex> guard(registry().lock);
    registry().live.insert(this);
}

CZelReceiver::~CZelReceiver()
{
    zel::forget_receiver(this);
}

int CZelReceiver::ProcessRq(void *)
{
    return 1;
}

bool CZelReceiver::isRegistered(const CZelReceiver *receiver)
{
    std::lock_guard<std::mutex> guard(registry().lock);
    return registry().live.count(receiver) > 0;
}

int CZelListener::statusChange(int, int *)
{
    return 1;
}

int CZelHeartbeatListener::getDesc(scratchcb *, int *)
{
    return 1;
}

int CZelHeartbeatListener::quietChannel(long, void *, int *)
{
    return 1;
}

int CZelHeartbeatListener::SetMsg(const char *)
{
    return 1;
}
