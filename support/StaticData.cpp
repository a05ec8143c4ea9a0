#include "support/StaticData.h"

#include "base/Exception.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <vector>

namespace QEL { namespace System {

namespace {

struct Slot {
    bool ready = false;
    bool creating = false;
    std::shared_ptr<void> data;
};

struct Registry {
    std::mutex lock;
    std::condition_variable changed;
    std::map<const void*, Slot> slots;
    std::vector<const void*> stack;
    std::size_t anchors = 0;
};

// Never destroyed: anchors in other modules may outlive any static of this one.
Registry& TheRegistry()
{
    static Registry* registry = new Registry;
    return *registry;
}

StaticData::Anchor ownAnchor;

}

StaticData::Anchor::Anchor()
{
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.lock);
    ++r.anchors;
}

StaticData::Anchor::~Anchor()
{
    Registry& r = TheRegistry();
    std::unique_lock<std::mutex> lock(r.lock);
    if (--r.anchors != 0)
        return;
    while (!r.stack.empty()) {
        auto type = r.stack.back();
        r.stack.pop_back();
        auto it = r.slots.find(type);
        if (it == r.slots.end())
            continue;
        it->second.ready = false;
        std::shared_ptr<void> data = std::move(it->second.data);
        lock.unlock();
        data.reset();
        lock.lock();
        r.slots.erase(type);
        r.changed.notify_all();
    }
}

std::shared_ptr<void> StaticData::GetSlot(Key type, Create create)
{
    Registry& r = TheRegistry();
    std::unique_lock<std::mutex> lock(r.lock);
    for (;;) {
        Slot& slot = r.slots[type];
        if (slot.ready)
            return slot.data;
        if (!slot.creating)
            break;
        r.changed.wait(lock);
    }
    r.slots[type].creating = true;
    lock.unlock();

    std::shared_ptr<void> data;
    try {
        try {
            data = create();
        } catch (const std::bad_alloc&) {
        }
        if (!data)
            throw Exception("Could not allocate static data.");
    } catch (...) {
        lock.lock();
        r.slots[type].creating = false;
        r.changed.notify_all();
        throw;
    }

    lock.lock();
    Slot& slot = r.slots[type];
    slot.creating = false;
    slot.ready = true;
    slot.data = data;
    r.stack.push_back(type);
    r.changed.notify_all();
    return data;
}

} }
