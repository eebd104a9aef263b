// The host's end of the cable: a machine with the simulated bus, cameras with a bare function driver on them, URBs.
#pragma once

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "drv/simbus/control.h"
#include "ntos/machine.h"

namespace wire {

using Bytes = std::vector<std::uint8_t>;

class Camera;

// One URB on its way, and the memory that it describes: pool, as a driver's would be. It may be sent once; the
// destructor waits for its completion.
class Transfer {
    Bytes storage_;

public:
    Transfer(const Camera &camera, USHORT function, std::size_t urbLength, const Bytes &data = {}, bool useMdl = false);
    Transfer(const Transfer &) = delete;
    ~Transfer();

    NTSTATUS send();  // what the dispatch routine returned
    Transfer &wait(); // ends the program when nothing comes for half a minute
    void cancel();
    USBD_STATUS usbStatus() const;
    std::size_t received() const;
    Bytes bytes() const; // as many as were received

    URB &urb;
    // Of the completion.
    std::atomic<int> completions{0};
    NTSTATUS status = 0;
    KIRQL irql = 0;
    const void *thread = nullptr;

private:
    static NTSTATUS onComplete(PDEVICE_OBJECT device, PIRP irp, PVOID context);

    PDEVICE_OBJECT device_;
    std::uint8_t *memory_ = nullptr;
    PMDL mdl_ = nullptr;
    PIRP irp_ = nullptr;
    std::mutex mutex_;
    std::condition_variable done_;
};

struct Read : Transfer {
    Read(const Camera &camera, std::size_t length, USBD_PIPE_HANDLE pipe = nullptr, bool shortOk = true,
         bool useMdl = false);
};

// Half a camera command: the bytes of it, or room for its reply.
struct Half : Transfer {
    Half(const Camera &camera, bool in, const Bytes &bytes = Bytes(64));
};

// A plugged camera as its function driver sees it.
class Camera {
public:
    Bytes command(const Bytes &command); // both halves, and the status byte has to be 0x90; the payload
    std::uint16_t readRegister(std::uint8_t index);
    void writeRegister(std::uint8_t index, std::uint16_t value);
    Bytes descriptor(std::uint8_t type, std::uint8_t index, std::size_t length, USBD_STATUS status = 0);
    // Selects configuration index 1 with an alternate setting, as the descriptor in hand says.
    NTSTATUS select(int alternate);
    NTSTATUS pipeRequest(USHORT function, USBD_PIPE_HANDLE pipe);
    USBD_PIPE_HANDLE pipe(std::uint8_t address = 0x82) const;

    void window(unsigned width, unsigned height, unsigned bits = 8);
    void run(bool on); // bit 8 of register 0x1E
    Bytes readStream(std::size_t bytes);

    std::uint32_t slot = 0;
    PDEVICE_OBJECT lower = nullptr;
    std::vector<USBD_PIPE_INFORMATION> pipes;
};

// The line words of a stream of equal lines with nothing between them.
std::vector<unsigned> lineWords(const Bytes &stream, std::size_t lineBytes);

simbus::PLUG_REQUEST model(unsigned number, bool mono, std::uint32_t flags = simbus::kPlugPaceGiven);

// While somebody holds it, the function driver sits on surprise removals: the camera is gone, its device object is not.
extern std::mutex removals;

// A record and the items behind it, as they travel.
template <typename T, typename ITEM = std::uint8_t> Bytes packed(const T &record, const std::vector<ITEM> &items = {})
{
    const auto *first = reinterpret_cast<const std::uint8_t *>(&record);
    const auto *rest = reinterpret_cast<const std::uint8_t *>(items.data());
    Bytes bytes(first, first + sizeof record);
    bytes.insert(bytes.end(), rest, rest + items.size() * sizeof(ITEM));
    return bytes;
}

class Rig {
public:
    explicit Rig(const ntos::Options &options = {});
    ~Rig();

    Camera plug(const simbus::PLUG_REQUEST &request);
    Camera plug(unsigned number, bool mono = true);
    void unplug(const Camera &camera);

    ntos::Result control(std::uint32_t code, const Bytes &in, void *out = nullptr, std::size_t outLength = 0);
    template <typename T, typename ITEM = std::uint8_t>
    ntos::NtStatus set(std::uint32_t code, const T &record, const std::vector<ITEM> &items = {})
    {
        return control(code, packed(record, items)).status;
    }
    template <typename T, typename Out> ntos::Result get(std::uint32_t code, const T &record, Out &out)
    {
        return control(code, packed(record), &out, sizeof out);
    }
    // LINE_FAULT, BULK_FAULT or COMMAND_FAULT records, in place of those before. Their requests begin alike.
    template <typename FAULT> ntos::NtStatus script(const Camera &camera, const std::vector<FAULT> &faults)
    {
        const std::uint32_t code = std::is_same_v<FAULT, simbus::LINE_FAULT>   ? simbus::kIoctlSetLineFaults
                                   : std::is_same_v<FAULT, simbus::BULK_FAULT> ? simbus::kIoctlSetBulkFaults
                                                                               : simbus::kIoctlSetCommandFaults;
        return set(code, simbus::LINE_FAULTS_REQUEST{camera.slot, 0, static_cast<std::uint32_t>(faults.size())},
                   faults);
    }
    simbus::CAMERA_STATE state(const Camera &camera);

    ntos::Machine machine;

private:
    ntos::File control_;
};

} // namespace wire
