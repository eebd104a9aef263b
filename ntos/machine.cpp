// The machine as a whole: boot, drivers, devices by hand, processes, shutdown.
#include "ntos/machine.h"

#include <algorithm>

#include "ntos/clockwork.h"
#include "ntos/memory.h"
#include "ntos/pnp.h"
#include "ntos/request.h"

namespace ntos {

// The managers' own ends of life.
void resetTrace();
void resetErrorLog();
void resetVerifier();
void resetFaults();
void resetPower();
void forgetWorkItems();
std::size_t errorPacketsLeft();
// pnp.cpp
Device addRoot(const std::string &hardwareId, std::uint64_t &id);
NTSTATUS withNode(std::uint64_t id, const std::function<NTSTATUS(DevNode &)> &work);
void enumerateNode(DevNode &node);
NTSTATUS startNodeByHand(DevNode &node);
NTSTATUS queryNode(DevNode &node, UCHAR minor, UCHAR cancelMinor, DeviceState accepted);
NTSTATUS cancelNode(DevNode &node, UCHAR minor);
NTSTATUS stopNode(DevNode &node);
NTSTATUS queryRemoveNode(DevNode &node);
void cancelRemoveTree(DevNode &node);
NTSTATUS removeNodeByHand(DevNode &node);
void surpriseNode(DevNode &node);
// power.cpp
NTSTATUS devicePowerByHand(std::uint64_t id, UCHAR minor, DevicePower state);

namespace {

std::atomic<Machine *> gMachine{nullptr};
std::atomic<std::uint64_t> gEpoch{1};
std::atomic<std::uint64_t> gProcessIds{8};

struct KernelState {
    std::mutex lock;
    std::vector<std::unique_ptr<DriverRecord>> drivers;
    std::vector<std::weak_ptr<detail::ProcessRecord>> processes;
    std::shared_ptr<detail::ProcessRecord> system, initial;
};
KernelState &kernelState()
{
    static auto *instance = new KernelState;
    return *instance;
}

std::shared_ptr<detail::ProcessRecord> newProcess(const std::string &name)
{
    auto record = std::make_shared<detail::ProcessRecord>();
    record->object = new ProcessObject;
    _KPROCESS &process = record->object->process;
    initializeObject(process.header, kProcessObject, 0);
    process.id = gProcessIds.fetch_add(4);
    process.name = name;
    registerObject(&process, record->object);
    return record;
}

void endProcess(_KPROCESS &process)
{
    if (process.exitStatus != STATUS_PENDING)
        return;
    std::vector<std::weak_ptr<detail::OpenFile>> handles;
    {
        std::lock_guard guard(process.lock);
        handles.swap(process.handles);
    }
    for (auto &handle : handles)
        if (auto file = handle.lock())
            closeFile(*file);
    if (const std::size_t left = userMappings(&process); left != 0)
        violate("process ended with memory mapped into it", "PspExitProcess", process.name + text(", %zu mappings", left), 0x76);
    process.exitStatus = STATUS_SUCCESS;
    signalObject(process.header, 1);
}

void setUpDriver(DriverRecord &record)
{
    record.object = {};
    record.extension = {};
    record.object.Type = 4;
    record.object.Size = sizeof(DRIVER_OBJECT);
    record.object.DriverExtension = &record.extension;
    record.extension.DriverObject = &record.object;
    record.object.DriverSection = &record;
    record.name = toWide("\\Driver\\" + record.registration.service);
    record.object.DriverName = {static_cast<USHORT>(record.name.size() * 2), static_cast<USHORT>(record.name.size() * 2), record.name.data()};
    record.object.DriverInit = record.registration.entry;
    for (auto &routine : record.object.MajorFunction)
        routine = defaultDispatch;
}

// What the driver left behind. Every find is a violation as well.
void checkUnloaded(DriverRecord &record, std::vector<std::string> &leaks)
{
    std::vector<std::string> found;
    for (PDEVICE_OBJECT device : devicesOf(&record))
        found.push_back("device object " + deviceText(device));
    for (const std::string &link : linksOf(&record))
        found.push_back("symbolic link " + link);
    for (const PoolBlock &block : poolBlocksOf(&record))
        found.push_back(text("pool block %p of %zu bytes, tag '%s'", block.address, block.size, tagText(block.tag).c_str()));
    auto count = [&](std::size_t number, const char *what) {
        if (number != 0)
            found.push_back(text("%zu %s", number, what));
    };
    count(irpsOf(&record), "requests");
    count(mdlsOf(&record), "memory descriptor lists");
    count(userMappingsOf(&record), "user mappings");
    count(workItemsOf(&record), "work items");
    for (const std::string &leak : found) {
        leaks.push_back(record.registration.service + ": " + leak);
        violate("left behind at unload", "unload", leaks.back(), 0xC4, leak.starts_with("pool") ? 0x62 : 0xD3);
    }
}

void unload(DriverRecord &record, std::vector<std::string> &leaks)
{
    if (!record.loaded)
        return;
    if (record.object.DriverUnload != nullptr) {
        DriverScope scope(&record);
        record.object.DriverUnload(&record.object);
    }
    record.loaded = false;
    checkUnloaded(record, leaks);
    setUpDriver(record);
}

} // namespace

std::uint64_t kernelEpoch()
{
    return gEpoch.load(std::memory_order_acquire);
}

bool kernelRunning()
{
    return gMachine.load(std::memory_order_acquire) != nullptr;
}

_KPROCESS *initialProcess()
{
    std::lock_guard guard(kernelState().lock);
    return kernelState().initial ? &kernelState().initial->object->process : nullptr;
}

_KPROCESS *systemProcess()
{
    std::lock_guard guard(kernelState().lock);
    return kernelState().system ? &kernelState().system->object->process : nullptr;
}

DriverRecord *findDriver(std::string_view service)
{
    std::lock_guard guard(kernelState().lock);
    for (auto &driver : kernelState().drivers)
        if (lowerCase(driver->registration.service) == lowerCase(service))
            return driver.get();
    return nullptr;
}

std::vector<DriverRecord *> drivers()
{
    std::vector<DriverRecord *> all;
    std::lock_guard guard(kernelState().lock);
    for (auto &driver : kernelState().drivers)
        all.push_back(driver.get());
    return all;
}

NTSTATUS loadDriverRecord(DriverRecord *driver)
{
    if (driver->loaded)
        return STATUS_SUCCESS;
    setUpDriver(*driver);
    std::vector<wchar_t> path = toWide("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + driver->registration.service);
    UNICODE_STRING registry{static_cast<USHORT>(path.size() * 2), static_cast<USHORT>(path.size() * 2), path.data()};
    NTSTATUS status;
    driver->loaded = true;
    {
        DriverScope scope(driver);
        status = driver->registration.entry(&driver->object, &registry);
    }
    if (!NT_SUCCESS(status)) {
        driver->loaded = false;
        std::vector<std::string> leaks;
        checkUnloaded(*driver, leaks);
        return status;
    }
    for (PDEVICE_OBJECT device = driver->object.DeviceObject; device != nullptr; device = device->NextDevice)
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING); // as the I/O manager does after DriverEntry
    return status;
}

// --------------------------------------------------------------------------------------------------- boot and shutdown

Machine::Machine(const Options &options)
{
    Machine *none = nullptr;
    if (!gMachine.compare_exchange_strong(none, this))
        violate("a second machine was booted", "Machine", "the first one runs", 0);
    gEpoch.fetch_add(1);
    configurePool(options);
    startClock(options.manualClock, options.bootTime.count());
    resetTrace();
    resetErrorLog();
    resetVerifier();
    resetFaults();
    resetPower();
    {
        auto system = newProcess("System");
        auto initial = newProcess("initial");
        std::lock_guard guard(kernelState().lock);
        kernelState().system = std::move(system);
        kernelState().initial = std::move(initial);
    }
    gEpoch.fetch_add(1); // threads take on the new initial process
    startPnp();
}

Machine::~Machine()
{
    if (!down_)
        shutdown();
}

Machine *Machine::current()
{
    return gMachine;
}

ShutdownReport Machine::shutdown()
{
    ShutdownReport report;
    if (std::exchange(down_, true))
        return report;
    faults().off();
    std::vector<std::shared_ptr<detail::ProcessRecord>> processes;
    {
        std::lock_guard guard(kernelState().lock);
        for (auto &weak : kernelState().processes)
            if (auto process = weak.lock())
                processes.push_back(std::move(process));
        processes.push_back(kernelState().initial);
    }
    for (auto &process : processes)
        endProcess(process->object->process);
    drainPnp();
    drainWorkers();
    tearDownTree();
    drainPnp();
    drainWorkers();
    for (DriverRecord *driver : drivers())
        unload(*driver, report.leaks);
    auto count = [&](std::size_t number, const char *what) {
        if (number == 0)
            return;
        report.leaks.push_back(text("%zu %s", number, what));
        violate("left behind at shutdown", "shutdown", report.leaks.back(), 0xC4, 0xD3);
    };
    if (!waitForSystemThreads(std::chrono::seconds(10)))
        count(systemThreads(), "system threads");
    count(kernelHandlesLeft(), "kernel handles");
    count(resourcesLeft(), "resources");
    count(interfacesLeft(), "enabled interfaces");
    count(errorPacketsLeft(), "error log packets");
    count(poolBlocks() - std::min(poolBlocks(), ntos::devices()), "pool blocks");
    stopPnp();
    stopWorkers();
    processes.clear();

    gMachine = nullptr;
    forgetUserMappings();
    forgetWorkItems();
    forgetIrps();
    forgetMdls();
    forgetInterfaces();
    forgetTree();
    forgetDevices();
    forgetNames();
    forgetPool();
    forgetResources();
    std::lock_guard guard(kernelState().lock);
    kernelState().drivers.clear();
    kernelState().processes.clear();
    kernelState().system = nullptr;
    kernelState().initial = nullptr;
    return report;
}

// -------------------------------------------------------------------------------------------------------------- drivers

void Machine::registerDriver(DriverRegistration registration)
{
    auto record = std::make_unique<DriverRecord>();
    record->registration = std::move(registration);
    setUpDriver(*record);
    std::lock_guard guard(kernelState().lock);
    kernelState().drivers.push_back(std::move(record));
}

NtStatus Machine::loadDriver(const std::string &service)
{
    DriverRecord *driver = findDriver(service);
    if (driver == nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    NTSTATUS status = STATUS_SUCCESS;
    onPnpThread([&] { status = loadDriverRecord(driver); });
    return status;
}

NtStatus Machine::unloadDriver(const std::string &service)
{
    DriverRecord *driver = findDriver(service);
    if (driver == nullptr || !driver->loaded)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (driver->object.DriverUnload == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    NTSTATUS status = STATUS_SUCCESS;
    drainWorkers();
    onPnpThread([&] {
        // A driver without AddDevice deletes its devices in its unload routine.
        if (driver->extension.AddDevice != nullptr && !devicesOf(driver).empty()) {
            status = STATUS_DEVICE_BUSY;
            return;
        }
        std::vector<std::string> leaks;
        unload(*driver, leaks);
    });
    return status;
}

bool Machine::loaded(const std::string &service) const
{
    DriverRecord *driver = findDriver(service);
    return driver != nullptr && driver->loaded;
}

// -------------------------------------------------------------------------------------------------------------- devices

Device Machine::addRootDevice(const std::string &hardwareId)
{
    std::uint64_t id = 0;
    addRoot(hardwareId, id);
    settle();
    return Device(id);
}

std::vector<Device> Machine::devices(std::string_view hardwareId) const
{
    std::vector<Device> found;
    std::lock_guard guard(treeLock());
    for (const DevNode *node : nodesInOrder())
        if (hardwareId.empty() || std::any_of(node->hardwareIds.begin(), node->hardwareIds.end(),
                                              [&](auto &id) { return lowerCase(id) == lowerCase(hardwareId); }))
            found.push_back(Device(node->id));
    return found;
}

void Machine::settle()
{
    // Each may hand the other work; two quiet rounds mean quiet.
    for (int round = 0; round < 2; round++) {
        drainPnp();
        drainWorkers();
    }
    drainPnp();
}

void Machine::enumerate(const Device &bus)
{
    withNode(bus.id(), [](DevNode &node) {
        enumerateNode(node);
        return STATUS_SUCCESS;
    });
    settle();
}

const char *toString(DeviceState state)
{
    static constexpr const char *names[] = {"enumerated",    "added",           "started", "stopPending",
                                            "stopped",       "removePending",   "surpriseRemoved", "removed"};
    return names[static_cast<std::size_t>(state)];
}

template <typename T> static T nodeField(std::uint64_t id, T fallback, const std::function<T(const DevNode &)> &get)
{
    std::lock_guard guard(treeLock());
    const DevNode *node = nodeById(id);
    return node == nullptr ? fallback : get(*node);
}

DeviceState Device::state() const
{
    return nodeField<DeviceState>(id_, DeviceState::removed, [](const DevNode &node) { return node.state; });
}

std::string Device::instancePath() const
{
    return nodeField<std::string>(id_, {}, [](const DevNode &node) { return node.instancePath; });
}

std::vector<std::string> Device::hardwareIds() const
{
    return nodeField<std::vector<std::string>>(id_, {}, [](const DevNode &node) { return node.hardwareIds; });
}

std::string Device::service() const
{
    return nodeField<std::string>(id_, {}, [](const DevNode &node) { return driverName(node.driver); });
}

NtStatus Device::addStatus() const
{
    return nodeField<NtStatus>(id_, STATUS_NO_SUCH_DEVICE, [](const DevNode &node) { return node.addStatus; });
}

NtStatus Device::startStatus() const
{
    return nodeField<NtStatus>(id_, STATUS_NO_SUCH_DEVICE, [](const DevNode &node) { return node.startStatus; });
}

std::size_t Device::openHandles() const
{
    return nodeField<std::size_t>(id_, 0, [](const DevNode &node) { return handlesOnStack(node.pdo); });
}

DevicePower Device::reportedPower() const
{
    return nodeField<DevicePower>(id_, DevicePower::unspecified, [](const DevNode &node) {
        return static_cast<DevicePower>(deviceRecord(node.pdo)->reportedPower);
    });
}

NtStatus Device::start()
{
    return withNode(id_, startNodeByHand);
}

NtStatus Device::queryStop()
{
    return withNode(id_, [](DevNode &node) {
        return queryNode(node, IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE, DeviceState::stopPending);
    });
}

NtStatus Device::cancelStop()
{
    return withNode(id_, [](DevNode &node) { return cancelNode(node, IRP_MN_CANCEL_STOP_DEVICE); });
}

NtStatus Device::stop()
{
    return withNode(id_, stopNode);
}

NtStatus Device::queryRemove()
{
    return withNode(id_, queryRemoveNode);
}

NtStatus Device::cancelRemove()
{
    return withNode(id_, [](DevNode &node) {
        cancelRemoveTree(node);
        return STATUS_SUCCESS;
    });
}

NtStatus Device::remove()
{
    return withNode(id_, removeNodeByHand);
}

void Device::surprise()
{
    withNode(id_, [](DevNode &node) {
        surpriseNode(node);
        return STATUS_SUCCESS;
    });
}

void Device::surpriseLater()
{
    queueOnPnpThread([id = id_] {
        withNode(id, [](DevNode &node) {
            surpriseNode(node);
            return STATUS_SUCCESS;
        });
    });
}

NtStatus Device::setPower(DevicePower state)
{
    return devicePowerByHand(id_, IRP_MN_SET_POWER, state);
}

NtStatus Device::queryPower(DevicePower state)
{
    return devicePowerByHand(id_, IRP_MN_QUERY_POWER, state);
}

static Result sendToNode(std::uint64_t id, std::uint8_t major, std::uint8_t minor, NtStatus initial,
                         const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill)
{
    Result result{STATUS_NO_SUCH_DEVICE, 0};
    const auto work = [&] {
        PDEVICE_OBJECT pdo = nodeField<PDEVICE_OBJECT>(id, nullptr, [](const DevNode &node) { return node.pdo; });
        if (pdo != nullptr)
            result = sendToStack(pdo, major, minor, initial, fill);
    };
    if (major == IRP_MJ_PNP)
        onPnpThread(work);
    else
        work();
    return result;
}

Result Device::send(const StackRequest &request)
{
    return sendToNode(id_, request.major, request.minor, request.initialStatus, [&](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.Others.Argument1 = reinterpret_cast<PVOID>(request.arguments[0]);
        location->Parameters.Others.Argument2 = reinterpret_cast<PVOID>(request.arguments[1]);
        location->Parameters.Others.Argument3 = reinterpret_cast<PVOID>(request.arguments[2]);
        location->Parameters.Others.Argument4 = reinterpret_cast<PVOID>(request.arguments[3]);
    });
}

Result Device::sendPnp(std::uint8_t minor)
{
    StackRequest request;
    request.minor = minor;
    return send(request);
}

static Result sendPower(std::uint64_t id, std::uint8_t minor, POWER_STATE_TYPE type, POWER_STATE state)
{
    return sendToNode(id, IRP_MJ_POWER, minor, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.Power.Type = type;
        location->Parameters.Power.State = state;
    });
}

Result Device::sendSystemPower(std::uint8_t minor, SystemState state)
{
    POWER_STATE target;
    target.SystemState = static_cast<SYSTEM_POWER_STATE>(state);
    return sendPower(id_, minor, SystemPowerState, target);
}

Result Device::sendDevicePower(std::uint8_t minor, DevicePower state)
{
    POWER_STATE target;
    target.DeviceState = static_cast<DEVICE_POWER_STATE>(state);
    return sendPower(id_, minor, DevicePowerState, target);
}

Result Device::sendSystemControl(std::uint8_t minor)
{
    return sendToNode(id_, IRP_MJ_SYSTEM_CONTROL, minor, STATUS_NOT_SUPPORTED, {});
}

// ------------------------------------------------------------------------------------------------------ names, counters

std::optional<std::string> Machine::symbolicLink(std::string_view name) const
{
    return linkTarget(name);
}

std::vector<std::pair<std::string, std::string>> Machine::symbolicLinks() const
{
    return links();
}

bool Machine::deviceNameExists(std::string_view name) const
{
    return deviceNamed(name);
}

std::vector<PoolTagStatistics> Machine::pool() const
{
    return poolStatistics();
}

PoolTagStatistics Machine::pool(std::string_view tag) const
{
    ULONG value = 0;
    for (std::size_t i = 0; i < 4; i++)
        value = (value << 8) | (i < tag.size() ? static_cast<std::uint8_t>(tag[i]) : ' ');
    return poolStatistics(value);
}

Counters Machine::counters() const
{
    Counters counters;
    counters.handles = openHandles();
    counters.requests = irps();
    counters.mdls = mdls();
    counters.mappings = userMappings();
    counters.poolBlocks = poolBlocks();
    counters.devices = ntos::devices();
    counters.symbolicLinks = links().size();
    counters.interfaces = interfacesLeft();
    counters.threads = systemThreads();
    counters.workItems = workItems();
    return counters;
}

bool Machine::userAddressMapped(const void *address, std::size_t length) const
{
    return userMapped(nullptr, address, length);
}

Clock &Machine::clock()
{
    return clock_;
}

Trace &Machine::trace()
{
    return trace_;
}

EventLog &Machine::eventLog()
{
    return eventLog_;
}

Verifier &Machine::verifier()
{
    return verifier_;
}

Faults &Machine::faults()
{
    return faults_;
}

// ------------------------------------------------------------------------------------------------------------ processes

Process Machine::createProcess(const std::string &name)
{
    Process process;
    process.process_ = newProcess(name);
    std::lock_guard guard(kernelState().lock);
    std::erase_if(kernelState().processes, [](auto &weak) { return weak.expired(); });
    kernelState().processes.push_back(process.process_);
    return process;
}

Process::Entered::Entered(const std::shared_ptr<detail::ProcessRecord> &process) : process_(process)
{
    _KTHREAD *thread = currentThread();
    previous_ = std::exchange(thread->process, &process_->object->process);
    active_ = true;
}

Process::Entered::Entered(Entered &&other) noexcept
    : previous_(other.previous_), active_(std::exchange(other.active_, false)), process_(std::move(other.process_))
{
}

Process::Entered::~Entered()
{
    if (active_)
        currentThread()->process = static_cast<_KPROCESS *>(previous_);
}

Process::Entered Process::enter() const
{
    return Entered(process_);
}

void Process::end()
{
    endProcess(process_->object->process);
}

bool Process::ended() const
{
    return process_->object->process.exitStatus != STATUS_PENDING;
}

std::uint64_t Process::id() const
{
    return process_->object->process.id;
}

const std::string &Process::name() const
{
    return process_->object->process.name;
}

std::size_t Process::handles() const
{
    _KPROCESS &process = process_->object->process;
    std::lock_guard guard(process.lock);
    return static_cast<std::size_t>(std::count_if(process.handles.begin(), process.handles.end(), [](auto &weak) {
        auto file = weak.lock();
        if (!file)
            return false;
        std::lock_guard fileGuard(file->lock);
        return !file->closed;
    }));
}

bool Process::mapped(const void *address, std::size_t length) const
{
    return userMapped(&process_->object->process, address, length);
}

std::size_t Process::mappings() const
{
    return userMappings(&process_->object->process);
}

} // namespace ntos
