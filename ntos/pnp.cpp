// The Plug and Play manager: one thread that enumerates buses, builds and starts stacks, and takes them away again.
#include "ntos/pnp.h"

#include <algorithm>
#include <exception>

#include "ntos/clockwork.h"
#include "ntos/memory.h"
#include "ntos/request.h"

namespace ntos {

NTSTATUS queryRemoveNode(DevNode &node);

namespace {

struct Pnp {
    std::recursive_mutex tree;
    std::map<std::uint64_t, std::unique_ptr<DevNode>> nodes;
    std::vector<std::unique_ptr<DevNode>> gone; // kept: other records may still point at them
    std::uint64_t nextId = 1;
    unsigned nextRoot = 0;
    std::unique_ptr<DriverRecord> rootDriver;

    std::mutex lock;
    std::condition_variable changed;
    std::deque<std::function<void()>> queue;
    bool busy = false, stopping = false;
    std::exception_ptr failure;
    std::thread thread;
    std::thread::id threadId;
};
Pnp &pnp()
{
    static auto *instance = new Pnp;
    return *instance;
}

void removeNode(DevNode &node);
void forgetNode(DevNode &node);
void addAndStart(DevNode &node);
void enumerateChildren(DevNode &node);

void setState(DevNode &node, DeviceState state)
{
    std::lock_guard guard(treeLock());
    node.state = state;
}

Result sendPnp(DevNode &node, UCHAR minor, NTSTATUS initial = STATUS_NOT_SUPPORTED,
               const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill = {})
{
    return sendToStack(node.pdo, IRP_MJ_PNP, minor, initial, fill);
}

// Identifications of a device. The bus allocates them, the system frees them.
std::vector<std::string> takeStrings(Result result, bool many)
{
    std::vector<std::string> strings;
    if (!result.ok() || result.information == 0)
        return strings;
    auto *text = reinterpret_cast<const wchar_t *>(result.information);
    while (*text != 0) {
        std::size_t length = 0;
        while (text[length] != 0)
            length++;
        strings.push_back(toUtf8(text, length));
        text += length + 1;
        if (!many)
            break;
    }
    poolFree(reinterpret_cast<void *>(result.information), "IRP_MN_QUERY_ID");
    return strings;
}

std::vector<std::string> queryIds(DevNode &node, BUS_QUERY_ID_TYPE type)
{
    const Result result = sendPnp(node, IRP_MN_QUERY_ID, STATUS_NOT_SUPPORTED,
                                  [&](PIRP, PIO_STACK_LOCATION location) { location->Parameters.QueryId.IdType = type; });
    return takeStrings(result, type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs);
}

std::string queryText(DevNode &node, DEVICE_TEXT_TYPE type)
{
    const Result result = sendPnp(node, IRP_MN_QUERY_DEVICE_TEXT, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.QueryDeviceText.DeviceTextType = type;
        location->Parameters.QueryDeviceText.LocaleId = 0x409;
    });
    auto strings = takeStrings(result, false);
    return strings.empty() ? std::string() : strings.front();
}

void queryCapabilities(DevNode &node)
{
    DEVICE_CAPABILITIES capabilities{};
    capabilities.Size = sizeof capabilities;
    capabilities.Version = 1;
    capabilities.Address = capabilities.UINumber = 0xFFFFFFFF;
    const Result result = sendPnp(node, IRP_MN_QUERY_CAPABILITIES, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.DeviceCapabilities.Capabilities = &capabilities;
    });
    if (!result.ok())
        return;
    std::lock_guard guard(treeLock());
    node.uiNumber = capabilities.UINumber;
    node.address = capabilities.Address;
}

DriverRecord *matchDriver(const DevNode &node)
{
    for (const auto *ids : {&node.hardwareIds, &node.compatibleIds})
        for (const std::string &id : *ids)
            for (DriverRecord *driver : drivers())
                for (const std::string &claimed : driver->registration.hardwareIds)
                    if (lowerCase(claimed) == lowerCase(id))
                        return driver;
    return nullptr;
}

void identify(DevNode &node)
{
    const auto device = queryIds(node, BusQueryDeviceID);
    const auto instance = queryIds(node, BusQueryInstanceID);
    const auto hardware = queryIds(node, BusQueryHardwareIDs);
    const auto compatible = queryIds(node, BusQueryCompatibleIDs);
    const std::string description = queryText(node, DeviceTextDescription);
    const std::string location = queryText(node, DeviceTextLocationInformation);
    queryCapabilities(node);
    std::lock_guard guard(treeLock());
    node.hardwareIds = hardware;
    node.compatibleIds = compatible;
    node.description = description;
    node.location = location;
    node.instancePath = (device.empty() ? std::string("UNKNOWN\\DEVICE") : device.front()) + "\\" +
                        (instance.empty() ? text("%04u", static_cast<unsigned>(node.id)) : instance.front());
}

NTSTATUS startNode(DevNode &node)
{
    const Result result = sendPnp(node, IRP_MN_START_DEVICE, STATUS_NOT_SUPPORTED);
    {
        std::lock_guard guard(treeLock());
        node.startStatus = result.status;
        if (result.ok()) {
            node.state = DeviceState::started;
            node.everStarted = true;
        } else if (node.state == DeviceState::stopped) {
            node.state = DeviceState::added;
        }
    }
    if (result.ok()) {
        queryCapabilities(node);
        enumerateChildren(node);
    }
    return result.status;
}

NTSTATUS addNode(DevNode &node)
{
    DriverRecord *driver = matchDriver(node);
    NTSTATUS status = STATUS_NO_SUCH_DEVICE;
    if (driver != nullptr)
        status = loadDriverRecord(driver);
    if (driver != nullptr && NT_SUCCESS(status)) {
        status = STATUS_INVALID_DEVICE_REQUEST;
        if (driver->extension.AddDevice != nullptr) {
            _KTHREAD *thread = currentThread();
            const KIRQL before = thread->irql;
            {
                DriverScope scope(driver);
                status = driver->extension.AddDevice(&driver->object, node.pdo);
            }
            if (thread->irql != before)
                violate("AddDevice returned at another level", "AddDevice", driverName(driver), 0xC9, 0x05);
            checkDanglingLinks("AddDevice");
            PDEVICE_OBJECT top = topOfStack(node.pdo);
            if (NT_SUCCESS(status) && top != node.pdo && (top->Flags & DO_DEVICE_INITIALIZING))
                violate("DO_DEVICE_INITIALIZING not cleared", "AddDevice", deviceText(top), 0xC4, 0x21F);
            if (!NT_SUCCESS(status) && top != node.pdo)
                violate("AddDevice failed and left its device attached", "AddDevice", deviceText(top), 0xC4, 0x240);
        }
    }
    std::lock_guard guard(treeLock());
    node.driver = driver;
    node.addStatus = status;
    if (NT_SUCCESS(status))
        node.state = DeviceState::added;
    return status;
}

void addAndStart(DevNode &node)
{
    if (NT_SUCCESS(addNode(node)))
        startNode(node);
}

std::vector<DevNode *> childrenOf(DevNode &node)
{
    std::lock_guard guard(treeLock());
    return node.children;
}

void forgetNode(DevNode &node)
{
    std::lock_guard guard(treeLock());
    if (node.parent != nullptr)
        std::erase(node.parent->children, &node);
    node.state = DeviceState::removed;
    deviceRecord(node.pdo)->node = nullptr;
    node.pdo = nullptr;
    auto found = pnp().nodes.find(node.id);
    pnp().gone.push_back(std::move(found->second));
    pnp().nodes.erase(found);
}

// Sends the remove request. The devices above the physical one are gone afterwards; the bus keeps that one while it is
// plugged in.
void finishRemoval(DevNode &node)
{
    for (DevNode *child : childrenOf(node)) {
        child->present = child->present && node.present;
        removeNode(*child);
        // What the bus still has plugged in is known no longer when the bus goes.
        std::lock_guard guard(treeLock());
        if (nodeById(child->id) != nullptr && !child->removeHeld)
            forgetNode(*child);
    }
    if (!childrenOf(node).empty()) {
        // A child is held back by a handle; its parent goes after it.
        std::lock_guard guard(treeLock());
        node.removeHeld = true;
        return;
    }
    PDEVICE_OBJECT pdo = node.pdo;
    DeviceRecord *record = deviceRecord(pdo);
    record->references++;
    const bool lower = pdo->AttachedDevice != nullptr;
    const Result result = sendPnp(node, IRP_MN_REMOVE_DEVICE, STATUS_NOT_SUPPORTED);
    if (!result.ok())
        violate("remove request failed", "IRP_MN_REMOVE_DEVICE", node.instancePath + text(", %08X", static_cast<unsigned>(result.status)), 0xC4, 0x20E);
    if (lower && pdo->AttachedDevice != nullptr)
        violate("device not detached at removal", "IRP_MN_REMOVE_DEVICE", node.instancePath, 0xC4, 0x244);
    for (const std::string &link : interfacesOfNode(node))
        violate("interface still enabled after removal", "IRP_MN_REMOVE_DEVICE", link, 0xC4, 0x62);
    disableInterfacesOf(node);
    checkDanglingLinks("IRP_MN_REMOVE_DEVICE");
    if (node.root) {
        deleteDevice(pdo, "IoDeleteDevice");
        forgetNode(node);
    } else if (node.missing || record->deletePending) {
        if (!record->deletePending)
            violate("bus kept the device object of a device that is gone", "IRP_MN_REMOVE_DEVICE", node.instancePath, 0xC4, 0x241);
        forgetNode(node);
    } else {
        setRemovePending(pdo, false);
        std::lock_guard guard(treeLock());
        node.state = DeviceState::enumerated;
        node.driver = nullptr;
        node.everStarted = node.surprised = false;
        node.present = true;
    }
    dereferenceDevice(pdo);
}

// Removal now, or when the last handle is closed.
void removeNode(DevNode &node)
{
    setRemovePending(node.pdo, true);
    for (DevNode *child : childrenOf(node))
        setRemovePending(child->pdo, true);
    if (!node.present && node.everStarted && !node.surprised) {
        node.surprised = true;
        setState(node, DeviceState::surpriseRemoved);
        const Result result = sendPnp(node, IRP_MN_SURPRISE_REMOVAL, STATUS_NOT_SUPPORTED);
        if (!result.ok())
            violate("surprise removal failed", "IRP_MN_SURPRISE_REMOVAL", node.instancePath + text(", %08X", static_cast<unsigned>(result.status)), 0xC4, 0x20E);
    }
    {
        std::lock_guard guard(treeLock());
        if (handlesOnStack(node.pdo) != 0) {
            node.removeHeld = true;
            return;
        }
        node.removeHeld = false;
    }
    DevNode *parent = node.parent;
    finishRemoval(node);
    std::unique_lock guard(treeLock());
    if (parent != nullptr && parent->removeHeld && parent->children.empty()) {
        guard.unlock();
        removeNode(*parent);
    }
}

void enumerateChildren(DevNode &node)
{
    const Result result = sendPnp(node, IRP_MN_QUERY_DEVICE_RELATIONS, STATUS_NOT_SUPPORTED, [](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.QueryDeviceRelations.Type = BusRelations;
    });
    if (!result.ok() || result.information == 0)
        return;
    auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(result.information);
    std::vector<DevNode *> arrived, missing;
    {
        std::lock_guard guard(treeLock());
        std::set<PDEVICE_OBJECT> reported(relations->Objects, relations->Objects + relations->Count);
        for (DevNode *child : node.children)
            if (!reported.contains(child->pdo))
                missing.push_back(child);
        for (PDEVICE_OBJECT pdo : reported) {
            if (deviceRecord(pdo)->node != nullptr)
                continue;
            auto child = std::make_unique<DevNode>();
            child->id = pnp().nextId++;
            child->pdo = pdo;
            child->pdoName = deviceRecord(pdo)->name;
            child->parent = &node;
            deviceRecord(pdo)->node = child.get();
            pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
            node.children.push_back(child.get());
            arrived.push_back(child.get());
            pnp().nodes[child->id] = std::move(child);
        }
        std::sort(arrived.begin(), arrived.end(), [](DevNode *a, DevNode *b) { return a->id < b->id; });
    }
    for (DevNode *child : missing) {
        child->present = false;
        child->missing = true;
        if (!child->removeHeld || !child->surprised)
            removeNode(*child);
    }
    for (DevNode *child : arrived) {
        if (child->pdo->Flags & DO_DEVICE_INITIALIZING)
            violate("DO_DEVICE_INITIALIZING not cleared", "IRP_MN_QUERY_DEVICE_RELATIONS", deviceText(child->pdo), 0xC4, 0x21F);
        identify(*child);
        addAndStart(*child);
    }
    for (ULONG i = 0; i < relations->Count; i++)
        dereferenceDevice(relations->Objects[i]); // the bus gave each a reference
    poolFree(relations, "IRP_MN_QUERY_DEVICE_RELATIONS");
}

// The bus of root-enumerated devices: its physical device objects say yes to what needs no hardware.
NTSTATUS NTAPI rootDispatch(PDEVICE_OBJECT, PIRP irp)
{
    const IO_STACK_LOCATION *location = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (location->MajorFunction == IRP_MJ_PNP) {
        switch (location->MinorFunction) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
        case IRP_MN_QUERY_CAPABILITIES:
            status = STATUS_SUCCESS;
            break;
        default:
            break;
        }
    } else if (location->MajorFunction == IRP_MJ_POWER) {
        if (location->MinorFunction == IRP_MN_SET_POWER || location->MinorFunction == IRP_MN_QUERY_POWER)
            status = STATUS_SUCCESS;
        PoStartNextPowerIrp(irp);
    }
    irp->IoStatus.Status = status;
    completeRequest(irp, "IoCompleteRequest");
    return status;
}

void pnpMain()
{
    currentThread()->process = systemProcess();
    Pnp &p = pnp();
    std::unique_lock guard(p.lock);
    for (;;) {
        p.changed.wait(guard, [&] { return p.stopping || !p.queue.empty(); });
        if (p.queue.empty())
            return;
        auto work = std::move(p.queue.front());
        p.queue.pop_front();
        p.busy = true;
        guard.unlock();
        try {
            work();
        } catch (...) {
            // A verifier handler threw: whoever settles the machine gets it.
            _KTHREAD *thread = currentThread();
            thread->drivers.clear();
            thread->locks.clear();
            thread->irql = PASSIVE_LEVEL;
            guard.lock();
            p.failure = std::current_exception();
            guard.unlock();
        }
        work = nullptr;
        guard.lock();
        p.busy = false;
        p.changed.notify_all();
    }
}

} // namespace

std::recursive_mutex &treeLock()
{
    return pnp().tree;
}

DevNode *nodeById(std::uint64_t id)
{
    auto found = pnp().nodes.find(id);
    return found == pnp().nodes.end() ? nullptr : found->second.get();
}

DevNode *nodeOfPdo(PDEVICE_OBJECT pdo)
{
    return deviceRecord(pdo)->node;
}

std::vector<DevNode *> nodesInOrder()
{
    std::vector<DevNode *> all;
    for (auto &[id, node] : pnp().nodes)
        all.push_back(node.get()); // ids grow: a parent is always older than its children
    return all;
}

void queueOnPnpThread(std::function<void()> work)
{
    Pnp &p = pnp();
    std::lock_guard guard(p.lock);
    p.queue.push_back(std::move(work));
    p.changed.notify_all();
}

void onPnpThread(const std::function<void()> &work)
{
    Pnp &p = pnp();
    if (std::this_thread::get_id() == p.threadId) {
        work();
        return;
    }
    bool done = false;
    std::exception_ptr failure;
    queueOnPnpThread([&] {
        std::exception_ptr caught;
        try {
            work();
        } catch (...) {
            caught = std::current_exception();
            _KTHREAD *thread = currentThread();
            thread->drivers.clear();
            thread->locks.clear();
            thread->irql = PASSIVE_LEVEL;
        }
        std::lock_guard guard(p.lock);
        failure = caught;
        done = true;
        p.changed.notify_all();
    });
    std::unique_lock guard(p.lock);
    p.changed.wait(guard, [&] { return done; });
    guard.unlock();
    if (failure)
        std::rethrow_exception(failure);
}

void drainPnp()
{
    Pnp &p = pnp();
    if (std::this_thread::get_id() == p.threadId)
        return;
    std::unique_lock guard(p.lock);
    p.changed.wait(guard, [&] { return !p.busy && p.queue.empty(); });
    if (p.failure)
        std::rethrow_exception(std::exchange(p.failure, nullptr));
}

void startPnp()
{
    Pnp &p = pnp();
    p.rootDriver = std::make_unique<DriverRecord>();
    p.rootDriver->registration.service = "PnpManager";
    p.rootDriver->object.DriverSection = p.rootDriver.get();
    for (auto &routine : p.rootDriver->object.MajorFunction)
        routine = rootDispatch;
    p.nextRoot = 0;
    p.stopping = false;
    p.failure = nullptr;
    p.thread = std::thread(pnpMain);
    p.threadId = p.thread.get_id();
}

void stopPnp()
{
    Pnp &p = pnp();
    {
        std::lock_guard guard(p.lock);
        p.stopping = true;
        p.changed.notify_all();
    }
    p.thread.join();
    p.threadId = {};
}

void tearDownTree()
{
    onPnpThread([] {
        for (;;) {
            DevNode *root = nullptr;
            {
                std::lock_guard guard(treeLock());
                for (DevNode *node : nodesInOrder())
                    if (node->parent == nullptr)
                        root = node;
            }
            if (root == nullptr)
                return;
            // Orderly where the drivers agree, by surprise where they do not.
            const std::uint64_t id = root->id;
            if (!NT_SUCCESS(queryRemoveNode(*root)))
                root->present = false;
            removeNode(*root);
            std::lock_guard guard(treeLock());
            if (nodeById(id) == nullptr)
                continue;
            violate("device cannot be removed at shutdown", "shutdown", root->instancePath, 0xC4, 0x240);
            return;
        }
    });
}

void forgetTree()
{
    std::lock_guard guard(treeLock());
    pnp().nodes.clear();
    pnp().gone.clear();
    pnp().rootDriver.reset();
}

void handleClosed(PDEVICE_OBJECT anyOfStack)
{
    PDEVICE_OBJECT pdo = bottomOfStack(anyOfStack);
    std::lock_guard guard(treeLock());
    DevNode *node = nodeOfPdo(pdo);
    if (node == nullptr || !node->removeHeld || handlesOnStack(pdo) != 0)
        return;
    queueOnPnpThread([id = node->id] {
        DevNode *held = nullptr;
        {
            std::lock_guard inner(treeLock());
            held = nodeById(id);
            if (held == nullptr || !held->removeHeld || handlesOnStack(held->pdo) != 0)
                return;
        }
        removeNode(*held);
    });
}

// ----------------------------------------------------------------------------------------------- what machine.h asks for

Device addRoot(const std::string &hardwareId, std::uint64_t &id)
{
    onPnpThread([&] {
        Pnp &p = pnp();
        PDEVICE_OBJECT pdo = nullptr;
        if (!NT_SUCCESS(createDevice(p.rootDriver.get(), 0, {}, FILE_DEVICE_UNKNOWN, FILE_AUTOGENERATED_DEVICE_NAME, false, &pdo)))
            return;
        pdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        pdo->Flags |= DO_BUS_ENUMERATED_DEVICE;
        DevNode *node;
        {
            std::lock_guard guard(treeLock());
            auto owned = std::make_unique<DevNode>();
            node = owned.get();
            node->id = id = p.nextId++;
            node->pdo = pdo;
            node->pdoName = deviceRecord(pdo)->name;
            node->root = true;
            node->hardwareIds = {hardwareId};
            std::string path = hardwareId;
            std::transform(path.begin(), path.end(), path.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            if (path.find('\\') == std::string::npos)
                path = "ROOT\\" + path;
            node->instancePath = path + text("\\%04u", p.nextRoot++);
            deviceRecord(pdo)->node = node;
            p.nodes[node->id] = std::move(owned);
        }
        addAndStart(*node);
    });
    return {};
}

NTSTATUS withNode(std::uint64_t id, const std::function<NTSTATUS(DevNode &)> &work)
{
    NTSTATUS status = STATUS_NO_SUCH_DEVICE;
    onPnpThread([&] {
        DevNode *node;
        {
            std::lock_guard guard(treeLock());
            node = nodeById(id);
        }
        if (node != nullptr)
            status = work(*node);
    });
    return status;
}

void enumerateNode(DevNode &node)
{
    if (node.state == DeviceState::started)
        enumerateChildren(node);
}

NTSTATUS startNodeByHand(DevNode &node)
{
    if (node.state == DeviceState::enumerated) {
        const NTSTATUS status = addNode(node);
        if (!NT_SUCCESS(status))
            return status;
    }
    if (node.state != DeviceState::added && node.state != DeviceState::stopped)
        return STATUS_INVALID_DEVICE_STATE;
    return startNode(node);
}

NTSTATUS queryNode(DevNode &node, UCHAR minor, UCHAR cancelMinor, DeviceState accepted)
{
    const Result result = sendPnp(node, minor, STATUS_NOT_SUPPORTED);
    if (result.ok())
        setState(node, accepted);
    else
        sendPnp(node, cancelMinor, STATUS_NOT_SUPPORTED);
    return result.status;
}

NTSTATUS cancelNode(DevNode &node, UCHAR minor)
{
    const Result result = sendPnp(node, minor, STATUS_NOT_SUPPORTED);
    setState(node, node.everStarted ? DeviceState::started : DeviceState::added);
    return result.status;
}

NTSTATUS stopNode(DevNode &node)
{
    const Result result = sendPnp(node, IRP_MN_STOP_DEVICE, STATUS_NOT_SUPPORTED);
    setState(node, DeviceState::stopped);
    return result.status;
}

// Asks the whole subtree, children first; a refusal is told to all who were asked.
NTSTATUS queryRemoveTree(DevNode &node, std::vector<DevNode *> &asked)
{
    for (DevNode *child : childrenOf(node)) {
        const NTSTATUS status = queryRemoveTree(*child, asked);
        if (!NT_SUCCESS(status))
            return status;
    }
    if (node.driver == nullptr || node.state == DeviceState::removePending || node.state == DeviceState::surpriseRemoved)
        return STATUS_SUCCESS;
    asked.push_back(&node);
    const Result result = sendPnp(node, IRP_MN_QUERY_REMOVE_DEVICE, STATUS_NOT_SUPPORTED);
    if (result.ok())
        setState(node, DeviceState::removePending);
    return result.ok() ? STATUS_SUCCESS : result.status;
}

NTSTATUS queryRemoveNode(DevNode &node)
{
    std::vector<DevNode *> asked;
    const NTSTATUS status = queryRemoveTree(node, asked);
    if (!NT_SUCCESS(status))
        for (DevNode *other : asked)
            cancelNode(*other, IRP_MN_CANCEL_REMOVE_DEVICE);
    return status;
}

void cancelRemoveTree(DevNode &node)
{
    if (node.state == DeviceState::removePending && !node.removeHeld)
        cancelNode(node, IRP_MN_CANCEL_REMOVE_DEVICE);
    for (DevNode *child : childrenOf(node))
        cancelRemoveTree(*child);
}

NTSTATUS removeNodeByHand(DevNode &node)
{
    if (node.removeHeld)
        return STATUS_SUCCESS;
    const NTSTATUS status = queryRemoveNode(node);
    if (NT_SUCCESS(status))
        removeNode(node);
    return status;
}

void surpriseNode(DevNode &node)
{
    if (node.removeHeld && node.surprised)
        return;
    node.present = false;
    removeNode(node);
}

} // namespace ntos

using namespace ntos;

extern "C" void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type)
{
    NTOS_DOOR(IoInvalidateDeviceRelations, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (Type != BusRelations)
        return;
    std::uint64_t id = 0;
    {
        std::lock_guard guard(treeLock());
        if (nodeOfPdo(DeviceObject) != nullptr)
            id = nodeOfPdo(DeviceObject)->id;
    }
    if (id == 0) {
        violate("relations of a device that is not physical", kDoor.routine, deviceText(DeviceObject), 0xCA, 0x02);
        return;
    }
    queueOnPnpThread([id] {
        DevNode *node;
        {
            std::lock_guard guard(treeLock());
            node = nodeById(id);
        }
        if (node != nullptr)
            enumerateNode(*node);
    });
}
