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
#include <memory>
#include <mutex>
#include <vector>

#include "client/bay.h"
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
    PIRP irp_;
    bool sent_ = false;
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

    void window(unsigned width, unsigned height);
    void run(bool on); // bit 8 of register 0x1E
    Bytes readStream(std::size_t bytes);

    std::uint32_t slot = 0;
    PDEVICE_OBJECT lower = nullptr;
    std::vector<USBD_PIPE_INFORMATION> pipes;
};

// The line words of a stream of equal lines with nothing between them.
std::vector<unsigned> lineWords(const Bytes &stream, std::size_t lineBytes);

// While somebody holds it, the function driver sits on surprise removals: the camera is gone, its device object is not.
extern std::mutex removals;

class Rig {
public:
    explicit Rig(const ntos::Options &options = {});
    ~Rig();

    Camera plug(vqt::PlugOptions options = {}); // as fast as it is read
    void unplug(const Camera &camera);
    bool serve(const Camera &camera); // by hand; false when there was nothing to do

    ntos::Machine machine;
    vqt::Bay bay;

private:
    vqt::Bay boot();
};

} // namespace wire
