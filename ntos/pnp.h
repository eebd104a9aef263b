// The device tree and the thread that changes it.
#pragma once

#include "ntos/io.h"

namespace ntos {

struct DevNode {
    std::uint64_t id = 0;
    PDEVICE_OBJECT pdo = nullptr;
    std::string pdoName;
    DevNode *parent = nullptr;
    std::vector<DevNode *> children;
    DeviceState state = DeviceState::enumerated;
    std::string instancePath;
    std::vector<std::string> hardwareIds, compatibleIds;
    std::string description, location;
    ULONG uiNumber = 0xFFFFFFFF, address = 0xFFFFFFFF;
    DriverRecord *driver = nullptr;
    NTSTATUS addStatus = STATUS_NO_SUCH_DEVICE;
    NTSTATUS startStatus = STATUS_NO_SUCH_DEVICE;
    bool root = false;
    bool present = true;      // false: gone without a word, for its drivers
    bool missing = false;     // its bus no longer reports it
    bool everStarted = false;
    bool surprised = false;   // has seen surprise removal
    bool removeHeld = false;  // waits for the last handle
    bool powering = false;    // a device power request is in flight
    std::deque<std::function<void()>> powerQueue;
};

std::recursive_mutex &treeLock();
DevNode *nodeById(std::uint64_t id);          // under the tree lock; null once forgotten
DevNode *nodeOfPdo(PDEVICE_OBJECT pdo);       // under the tree lock
std::vector<DevNode *> nodesInOrder();        // under the tree lock: parents before children

// Runs the work on the Plug and Play thread and waits for it; in place when already there.
void onPnpThread(const std::function<void()> &work);
void queueOnPnpThread(std::function<void()> work);
void startPnp();
void stopPnp();      // joins the thread; nothing may be queued any more
void drainPnp();
void tearDownTree(); // removes everything, children first
void forgetTree();

std::vector<std::string> interfacesOfNode(const DevNode &node);
void disableInterfacesOf(const DevNode &node);
void forgetInterfaces();
std::size_t interfacesLeft();

NTSTATUS powerRequest(PDEVICE_OBJECT pdo, UCHAR minor, POWER_STATE_TYPE type, POWER_STATE state, POWER_ACTION action);

} // namespace ntos
