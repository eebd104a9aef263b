// Devices, names and requests, for the managers.
#pragma once

#include "ntos/kernel.h"

namespace ntos {

struct DriverRecord : ObjectHeader {
    DriverRecord() : ObjectHeader(ObjectType::driver) {}
    DriverRegistration registration;
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::vector<wchar_t> name;
    bool loaded = false;
};

struct DeviceRecord : ObjectHeader {
    DeviceRecord() : ObjectHeader(ObjectType::device) {}
    PDEVICE_OBJECT object = nullptr;
    std::string name;                 // empty without one
    DriverRecord *driver = nullptr;
    PDEVICE_OBJECT attachedTo = nullptr;
    DevNode *node = nullptr;          // of a physical device object
    bool exclusive = false;
    bool deletePending = false;
    bool removePending = false;       // opens are refused
    DEVICE_POWER_STATE reportedPower = PowerDeviceUnspecified;
};
DeviceRecord *deviceRecord(PDEVICE_OBJECT device);   // never null for a live device object
std::string deviceText(PDEVICE_OBJECT device);       // for messages
PDEVICE_OBJECT topOfStack(PDEVICE_OBJECT device);
PDEVICE_OBJECT bottomOfStack(PDEVICE_OBJECT device);
void dereferenceDevice(PDEVICE_OBJECT device);
NTSTATUS createDevice(DriverRecord *driver, std::size_t extensionSize, std::string name, DEVICE_TYPE type,
                      ULONG characteristics, bool exclusive, PDEVICE_OBJECT *device);
void deleteDevice(PDEVICE_OBJECT device, const char *routine);
std::size_t handlesOnStack(PDEVICE_OBJECT anyOfStack);
void setRemovePending(PDEVICE_OBJECT anyOfStack, bool pending);
std::size_t devices();
std::vector<PDEVICE_OBJECT> devicesOf(const DriverRecord *driver);
void forgetDevices();

// Names. Links point at device names.
NTSTATUS createLink(const std::string &name, const std::string &target, bool isInterface, DriverRecord *owner);
NTSTATUS deleteLink(const std::string &name);
std::optional<std::string> linkTarget(std::string_view name);
std::vector<std::pair<std::string, std::string>> links();
std::vector<std::string> linksOf(const DriverRecord *owner);
bool deviceNamed(std::string_view name);
// Finds the device a name leads to and takes a handle on it; rest: what follows the device's name.
NTSTATUS openDevice(std::string name, PDEVICE_OBJECT *device, std::string *rest);
void closeDevice(PDEVICE_OBJECT device); // gives the handle back
void checkDanglingLinks(const char *when);
void forgetNames();

// Requests
struct CallRecord {
    PDEVICE_OBJECT device = nullptr;
    DriverRecord *driver = nullptr;
    UCHAR major = 0, minor = 0;
    std::atomic<bool> marked{false}, forced{false}, completed{false}, passedDown{false}, skipped{false}, poStarted{false};
    std::atomic<NTSTATUS> completedStatus{0}, lowerStatus{0};
};
enum class IrpKind : std::uint8_t { driver, threaded, manager };
struct IrpRecord {
    IrpKind kind = IrpKind::driver;
    DriverRecord *owner = nullptr;
    std::atomic<bool> inFlight{false};
    std::vector<std::shared_ptr<CallRecord>> calls; // by location, 1 to StackCount
    std::shared_ptr<detail::PendingIo> io;          // of the manager's requests
    void *systemBuffer = nullptr;                   // buffered requests
    std::size_t outputLength = 0;
    bool checksInformation = false;
    std::atomic<std::int64_t> cancelledAt{0};       // host's steady clock, nanoseconds; 0: not cancelled
    IRP irp{};
    IO_STACK_LOCATION stack[1];                     // StackCount of them
};
IrpRecord *irpRecord(PIRP irp); // no check
PIRP newIrp(CCHAR stackSize, IrpKind kind, DriverRecord *owner);
void unregisterIrp(PIRP irp);
void destroyIrp(PIRP irp);      // unregistered before
std::size_t irps();
std::size_t irpsOf(const DriverRecord *owner);
void forgetIrps();
NTSTATUS callDriver(PDEVICE_OBJECT device, PIRP irp, const char *routine);
void completeRequest(PIRP irp, const char *routine);
bool cancelIrp(PIRP irp);
void checkCancelLatency(IrpRecord &record, const char *routine);
std::chrono::milliseconds cancelLimit();
std::string irpText(PIRP irp);
NTSTATUS prepareBuffers(PIRP irp, ULONG code, const void *in, std::size_t inLength, void *out, std::size_t outLength);
void releaseBuffers(PIRP irp, bool copyOut);
bool isDispatchDefault(PDEVICE_OBJECT device, UCHAR major);

// Sends a request of the system's own to the top of a stack and waits for it. fill sets up the stack location.
Result sendToStack(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, NTSTATUS initialStatus,
                   const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill = {});

// Drivers
DriverRecord *findDriver(std::string_view service);
NTSTATUS loadDriverRecord(DriverRecord *driver);
std::vector<DriverRecord *> drivers();
DRIVER_DISPATCH defaultDispatch;

// Threads, for the end of a driver's life
std::size_t systemThreads();
bool waitForSystemThreads(std::chrono::milliseconds limit);
std::size_t kernelHandlesLeft();
std::size_t workItems();
std::size_t workItemsOf(const DriverRecord *owner);
std::size_t queuedWorkItems();

// Plug and Play, as the I/O manager needs it
void handleClosed(PDEVICE_OBJECT anyOfStack);

} // namespace ntos
