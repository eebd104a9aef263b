// The power manager: one device power request at a time for each device, system transitions over the whole tree.
#include <algorithm>

#include "ntos/pnp.h"
#include "ntos/request.h"

namespace ntos {

namespace {

std::atomic<std::uint32_t> gSystemState{1};

POWER_ACTION actionFor(SYSTEM_POWER_STATE state)
{
    return state >= PowerSystemShutdown ? PowerActionShutdown : state == PowerSystemHibernate ? PowerActionHibernate : PowerActionSleep;
}

void note(PDEVICE_OBJECT pdo, POWER_STATE_TYPE type, UCHAR minor, POWER_STATE state, NTSTATUS status)
{
    if (type == DevicePowerState && minor == IRP_MN_SET_POWER && NT_SUCCESS(status)) {
        std::lock_guard guard(treeLock());
        deviceRecord(pdo)->reportedPower = state.DeviceState;
    }
}

} // namespace

NTSTATUS powerRequest(PDEVICE_OBJECT pdo, UCHAR minor, POWER_STATE_TYPE type, POWER_STATE state, POWER_ACTION action)
{
    const Result result = sendToStack(pdo, IRP_MJ_POWER, minor, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.Power.Type = type;
        location->Parameters.Power.State = state;
        location->Parameters.Power.ShutdownType = action;
    });
    note(pdo, type, minor, state, result.status);
    return result.status;
}

// Runs the job when no other device power request of the device is under way.
static void serialised(std::uint64_t id, std::function<void()> job)
{
    {
        std::lock_guard guard(treeLock());
        DevNode *node = nodeById(id);
        if (node != nullptr) {
            if (node->powering) {
                node->powerQueue.push_back(std::move(job));
                return;
            }
            node->powering = true;
        }
    }
    runInWorker([id, job = std::move(job)] {
        job();
        for (;;) {
            std::function<void()> next;
            {
                std::lock_guard guard(treeLock());
                DevNode *node = nodeById(id);
                if (node == nullptr)
                    return;
                if (node->powerQueue.empty()) {
                    node->powering = false;
                    return;
                }
                next = std::move(node->powerQueue.front());
                node->powerQueue.pop_front();
            }
            next();
        }
    });
}

NTSTATUS devicePowerByHand(std::uint64_t id, UCHAR minor, DevicePower state)
{
    PDEVICE_OBJECT pdo;
    {
        std::lock_guard guard(treeLock());
        DevNode *node = nodeById(id);
        if (node == nullptr)
            return STATUS_NO_SUCH_DEVICE;
        pdo = node->pdo;
        deviceRecord(pdo)->references++;
    }
    std::mutex lock;
    std::condition_variable answered;
    bool done = false;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    serialised(id, [&, pdo] {
        POWER_STATE target;
        target.DeviceState = static_cast<DEVICE_POWER_STATE>(state);
        const NTSTATUS result = powerRequest(pdo, minor, DevicePowerState, target, PowerActionNone);
        std::lock_guard guard(lock);
        status = result;
        done = true;
        answered.notify_all();
    });
    std::unique_lock guard(lock);
    answered.wait(guard, [&] { return done; });
    guard.unlock();
    dereferenceDevice(pdo);
    return status;
}

// Every device with a stack, parents first.
static std::vector<PDEVICE_OBJECT> poweredDevices()
{
    std::vector<PDEVICE_OBJECT> found;
    std::lock_guard guard(treeLock());
    for (DevNode *node : nodesInOrder())
        if (NT_SUCCESS(node->addStatus) && node->state != DeviceState::surpriseRemoved && node->pdo != nullptr) {
            deviceRecord(node->pdo)->references++;
            found.push_back(node->pdo);
        }
    return found;
}

static void systemTransition(const std::vector<PDEVICE_OBJECT> &devices, SystemState state)
{
    for (PDEVICE_OBJECT pdo : devices) {
        POWER_STATE target;
        target.SystemState = static_cast<SYSTEM_POWER_STATE>(state);
        powerRequest(pdo, IRP_MN_SET_POWER, SystemPowerState, target, actionFor(target.SystemState));
    }
}

NTSTATUS Machine::sleep(SystemState state)
{
    NTSTATUS status = STATUS_SUCCESS;
    onPnpThread([&] {
        std::vector<PDEVICE_OBJECT> devices = poweredDevices();
        std::reverse(devices.begin(), devices.end());
        POWER_STATE target;
        target.SystemState = static_cast<SYSTEM_POWER_STATE>(state);
        for (PDEVICE_OBJECT pdo : devices) {
            const NTSTATUS answer = powerRequest(pdo, IRP_MN_QUERY_POWER, SystemPowerState, target, actionFor(target.SystemState));
            // A stack nobody answers for does not object.
            if (!NT_SUCCESS(answer) && answer != STATUS_NOT_SUPPORTED && NT_SUCCESS(status))
                status = answer;
        }
        if (NT_SUCCESS(status)) {
            systemTransition(devices, state);
            gSystemState = static_cast<std::uint32_t>(state);
        } else {
            // Those who agreed are told that the machine stays awake.
            std::reverse(devices.begin(), devices.end());
            systemTransition(devices, SystemState::working);
        }
        for (PDEVICE_OBJECT pdo : devices)
            dereferenceDevice(pdo);
    });
    return status;
}

NTSTATUS Machine::wake()
{
    onPnpThread([] {
        const std::vector<PDEVICE_OBJECT> devices = poweredDevices();
        gSystemState = 1;
        systemTransition(devices, SystemState::working);
        for (PDEVICE_OBJECT pdo : devices)
            dereferenceDevice(pdo);
    });
    return STATUS_SUCCESS;
}

SystemState Machine::systemState() const
{
    return static_cast<SystemState>(gSystemState.load());
}

void resetPower()
{
    gSystemState = 1;
}

} // namespace ntos

using namespace ntos;

extern "C" {

NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                           PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP *Irp)
{
    NTOS_DOOR(PoRequestPowerIrp, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        return STATUS_INSUFFICIENT_RESOURCES;
    if (MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER)
        return STATUS_INVALID_PARAMETER;
    if (Irp != nullptr)
        *Irp = nullptr;
    PDEVICE_OBJECT pdo = bottomOfStack(DeviceObject);
    std::uint64_t id = 0;
    {
        std::lock_guard guard(treeLock());
        if (nodeOfPdo(pdo) != nullptr)
            id = nodeOfPdo(pdo)->id;
    }
    deviceRecord(pdo)->references++;
    DriverRecord *driver = currentDriver();
    serialised(id, [=] {
        const NTSTATUS status = powerRequest(pdo, MinorFunction, DevicePowerState, PowerState, PowerActionNone);
        if (CompletionFunction != nullptr) {
            IO_STATUS_BLOCK block{};
            block.Status = status;
            DriverScope scope(driver);
            CompletionFunction(DeviceObject, MinorFunction, PowerState, Context, &block);
        }
        dereferenceDevice(pdo);
    });
    return STATUS_PENDING;
}

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State)
{
    NTOS_DOOR(PoSetPowerState, DISPATCH_LEVEL, false);
    enter(kDoor);
    std::lock_guard guard(treeLock());
    POWER_STATE old;
    DeviceRecord *record = deviceRecord(bottomOfStack(DeviceObject));
    old.DeviceState = record->reportedPower;
    if (Type == DevicePowerState)
        record->reportedPower = State.DeviceState;
    return old;
}

} // extern "C"
