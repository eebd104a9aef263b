// Work items.
#include "ntos/io.h"

struct _IO_WORKITEM {
    PDEVICE_OBJECT device;
    ntos::DriverRecord *owner;
    std::atomic<bool> queued{false};
};

namespace ntos {

namespace {

struct Items {
    std::mutex lock;
    std::set<PIO_WORKITEM> live;
};
Items &items()
{
    static auto *instance = new Items;
    return *instance;
}

bool known(PIO_WORKITEM item, const char *routine)
{
    {
        std::lock_guard guard(items().lock);
        if (items().live.contains(item))
            return true;
    }
    violate("work item does not exist or was freed", routine, text("item %p", static_cast<void *>(item)), 0xC4, 0xB8);
    return false;
}

} // namespace

std::size_t workItems()
{
    std::lock_guard guard(items().lock);
    return items().live.size();
}

std::size_t workItemsOf(const DriverRecord *owner)
{
    std::lock_guard guard(items().lock);
    std::size_t found = 0;
    for (PIO_WORKITEM item : items().live)
        found += item->owner == owner;
    return found;
}

void forgetWorkItems()
{
    std::lock_guard guard(items().lock);
    for (PIO_WORKITEM item : items().live)
        delete item;
    items().live.clear();
}

} // namespace ntos

using namespace ntos;

extern "C" {

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    NTOS_DOOR(IoAllocateWorkItem, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    auto *item = new _IO_WORKITEM{DeviceObject, currentDriver()};
    std::lock_guard guard(items().lock);
    items().live.insert(item);
    return item;
}

void IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    NTOS_DOOR(IoFreeWorkItem, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(IoWorkItem, kDoor.routine))
        return;
    if (IoWorkItem->queued)
        violate("work item freed while queued", kDoor.routine, deviceText(IoWorkItem->device), 0xC4, 0x85);
    {
        std::lock_guard guard(items().lock);
        items().live.erase(IoWorkItem);
    }
    delete IoWorkItem;
}

void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE, PVOID Context)
{
    NTOS_DOOR(IoQueueWorkItem, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(IoWorkItem, kDoor.routine))
        return;
    if (IoWorkItem->queued.exchange(true)) {
        violate("work item queued twice", kDoor.routine, deviceText(IoWorkItem->device), 0x96);
        return;
    }
    PDEVICE_OBJECT device = IoWorkItem->device;
    deviceRecord(device)->references++; // the system keeps the device while the routine runs
    runInWorker(
        [=] {
            IoWorkItem->queued = false; // the routine may queue or free it
            WorkerRoutine(device, Context);
            dereferenceDevice(device);
        },
        PASSIVE_LEVEL, IoWorkItem->owner);
}

} // extern "C"
