// A camera, opened through one of its names: every request of the driver as a method, and what applications build on
// them.
//
// DeviceIDs are the characters '0' to '9' and 'A' to 'Z'. A Camera may be used by several threads at once; requests
// that wait (frames, snapshots) block only the thread that sent them.
#pragma once

#include "client/image.h"
#include "client/port.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vqt {

constexpr std::string_view kDeviceIds = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// What commands 0x11 and 0x12 answer, taken apart.
struct CameraInfo {
    bool usb2 = false;
    std::optional<unsigned> frequencyIndex; // 0, 1, 2; none for a code the driver would not know either
    std::uint16_t hwModelId = 0;
    std::uint16_t batch = 0, board = 0; // identification numbers at offsets 2 and 8
    std::uint32_t serial = 0;           // identification number at offset 4
    std::uint16_t firmware = 0;
    std::uint32_t badPixels = 0; // records in the flash
    std::uint16_t chipId = 0;    // sensor register 0

    std::string modelName() const; // "VQT-42R1M", or "unknown model"
    bool identified() const;       // the driver knows the chip and the hardware model
};

// A record of the defect list in the camera's flash.
struct BadPixel {
    std::uint16_t x = 0, y = 0;
    std::uint8_t type = 0;

    enum class Kind { pixel, column, row };
    Kind kind() const { return (type & 3) != 3 ? Kind::pixel : y == 0 ? Kind::column : Kind::row; }
};

class Camera {
public:
    // ---- names
    static std::string dosName(char deviceId);   // "\\.\UsbVQTR42Xx_0"
    static std::string slaveName(char deviceId); // "\\.\QorinInfer01r00"
    static USBCAM_GUID interfaceClass(char deviceId);

    static Result<Camera> open(char deviceId);
    static Result<Camera> openSlave(char deviceId);
    static Result<Camera> openInterface(char deviceId); // through the first enabled interface of the camera's class
    static std::vector<char> list();                    // DeviceIDs whose DOS name opens
    static std::vector<char> listInterfaces();          // DeviceIDs with an enabled interface

    Camera(Camera &&) noexcept = default;
    Camera &operator=(Camera &&) noexcept = default;

    char deviceId() const { return deviceId_; }
    Port &port() { return port_; }
    void close() { port_.close(); }

    // ---- the 22 requests, one method each, named as the codes are
    Done setCameraStatus(std::uint8_t status);
    Result<std::uint8_t> getCameraStatus();
    Result<CAMERA_STATE> getState(); // clears the totals
    Result<Geometry> getFrameParameters();
    Done setFrameParameters(const Geometry &geometry);
    Done setDefAlt(std::uint8_t setting);
    Done setBitsPerPixel(std::uint32_t bits);
    Result<std::uint32_t> getBitsPerPixel();

    Result<std::size_t> getFrame(Bytes image);            // bytes copied
    Result<std::size_t> getFrameEx(Bytes headerAndImage); // bytes copied
    Result<FrameView> getFramePtr();
    Result<std::size_t> getSnapshot(Bytes image); // bytes written
    Done cancelSnapshot();
    Done setSnapshotParams(std::uint32_t timeoutSeconds, bool externalTrigger);

    Result<std::vector<std::uint8_t>> hwCommand(std::uint8_t code, ConstBytes arguments = {},
                                                std::size_t capacity = 63);
    Done usbWrite(std::uint8_t code, ConstBytes arguments = {});
    Result<std::vector<std::uint8_t>> usbRead(std::size_t capacity = 63);
    Done slaveWrite(ConstBytes arguments);
    Result<std::vector<std::uint8_t>> slaveRead(std::size_t capacity = 63);
    Result<std::size_t> mainRead(Bytes stream); // bytes read
    Done resetPipe(std::uint8_t pipe);
    Done setInterfaceType(std::uint8_t interfaceNumber, std::uint8_t setting);

    // ---- built on them
    Done start() { return setCameraStatus(CameraStreaming); }
    Done stop() { return setCameraStatus(CameraStopped); }
    Result<std::size_t> imageSize(); // bytes of the image that the next frame or snapshot will have
    Result<Frame> grab();            // the next frame; the camera has to stream
    // The same for series: the caller, who set the window, knows the size (a header and an image) and the kind of
    // sensor.
    Result<Frame> grab(std::vector<std::uint8_t> &buffer, bool mono);
    Result<Image> snapshot(); // one picture; the camera has to be stopped

    Result<CameraInfo> info();
    Result<std::uint16_t> readRegister(std::uint8_t number);
    Done writeRegister(std::uint8_t number, std::uint16_t value);
    Result<std::vector<std::uint8_t>> readFlash(std::uint16_t address, std::uint16_t length);
    Done setFrequency(std::uint8_t index);
    Result<std::vector<BadPixel>> badPixels();

private:
    Camera(char deviceId, Port port) : port_(std::move(port)), deviceId_(deviceId) {}
    static Result<Camera> openName(char deviceId, const std::string &name);
    Done send(const char *request, std::uint32_t code, ConstBytes in = {}, Bytes out = {});
    Result<std::size_t> transfer(const char *request, std::uint32_t code, ConstBytes in, Bytes out);
    Error failed(const char *request, NtStatus status) const;

    Port port_;
    char deviceId_ = '0';
};

// What a failed request of the driver means and what to do about it, without the request's name.
std::string advice(std::string_view request, NtStatus status);

} // namespace vqt
