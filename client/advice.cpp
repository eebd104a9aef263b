// What to do about a request that failed: by request where the driver's own rules explain the status, else by status.
#include "client/camera.h"

namespace vqt {
namespace {

struct Advice {
    std::string_view request; // empty: any
    NtStatus status;
    std::string_view text;
};

constexpr std::string_view kNotStreaming = "the camera is not streaming; start the stream first";
constexpr std::string_view kNoFrame = "no frame came within 5 seconds; check the cable, the alternate setting and the "
                                      "exposure, then stop and start the stream";
constexpr std::string_view kWindow =
    "the window does not fit: it needs at least 8 columns and 2 rows a decimation step, has to lie "
    "inside the sensor, and decimation 3, 5, 6, 7 and the negative ones are for model 3 only";

constexpr Advice kAdvice[] = {
    {"SetCameraStatus", status::kInvalidDeviceRequest,
     "the camera is already in that state; ask for its status, and stop it before you start it again"},
    {"SetFrameParameters", status::kInvalidDeviceRequest, kWindow},
    {"SetDefAlt", status::kInvalidParameter, "the alternate setting is 1 or 2"},
    {"SetBitsPerPixel", status::kUnsuccessful,
     "this camera's firmware has one pixel depth; ask for its depth (8 or 10) and use that"},
    {"GetFrame", status::kInvalidDeviceRequest, kNotStreaming},
    {"GetFrameEx", status::kInvalidDeviceRequest, kNotStreaming},
    {"GetFramePtr", status::kInvalidDeviceRequest,
     "the camera is not streaming, or was stopped while this request waited; start the stream first"},
    {"GetFrame", status::kUnsuccessful, kNoFrame},
    {"GetFrameEx", status::kUnsuccessful, kNoFrame},
    {"GetFramePtr", status::kUnsuccessful, "the frame could not be mapped; copy frames instead"},
    {"GetSnapshot", status::kInvalidParameter,
     "the camera streams or captures already, or the buffer is smaller than the image; stop it first"},
    {"GetSnapshot", status::kTimeout,
     "no complete frame came within the limit; raise the limit, or check that the trigger arrives"},
    {"GetSnapshot", status::kDeviceBusy, "another program is capturing or streaming; try again when it has ended"},
    {"CancelSnapshot", status::kInvalidDeviceRequest, "no snapshot is running"},
    {"CancelSnapshot", status::kInvalidParameter, "no snapshot is running"},
    {"HwCommand", status::kInvalidParameter, "a command is one code byte with at most 63 argument bytes"},
    {"USBWrite", status::kInvalidParameter, "a command is one code byte with at most 63 argument bytes"},
    {"SlaveWrite", status::kInvalidDeviceRequest, "a slave command has 1 to 63 bytes"},
    {"SlaveRead", status::kInvalidDeviceRequest,
     "no reply is kept, or it is longer than the buffer; send a slave command first, and read its reply once with 63 "
     "bytes"},
    {"MainRead", status::kInvalidDeviceRequest,
     "no streaming setting is selected; select interface 0 with alternate setting 1 or 2, or start the stream, first"},
    {"ResetPipe", status::kInvalidDeviceRequest,
     "only pipe 2 (the stream) can be reset, and only while a streaming setting is selected"},
    {"ResetPipe", status::kInvalidParameter,
     "only pipe 2 (the stream) can be reset, and only while a streaming setting is selected"},
    {"SetInterfaceType", status::kDeviceBusy, "the camera streams or captures; stop it first"},

    {"", status::kTimeout, "the camera did not answer in time; unplug it and plug it in again"},
    {"", status::kDeviceBusy, "the camera is busy; stop the stream or the snapshot first"},
    {"", status::kDeviceRemoved, "the camera was unplugged; plug it in and open it again"},
    {"", status::kNoSuchDevice, "the camera is gone; plug it in and open it again"},
    {"", status::kDeviceNotConnected, "the camera is gone; plug it in and open it again"},
    {"", status::kObjectNameNotFound, "there is no such camera; list the cameras that are plugged in"},
    {"", status::kAccessDenied,
     "the device's security lets administrators and the interactive user in; run it as one of them"},
    {"", status::kAdapterHardwareError, "the camera refused the command; check its code and arguments"},
    {"", status::kNotImplemented,
     "the driver does not know this request; install the driver that belongs to this program"},
    {"", status::kInsufficientResources, "the system is short of memory; close other programs and try again"},
    {"", status::kNoMemory, "the system is short of memory; close other programs and try again"},
    {"", status::kInvalidParameter, "the request's buffers or values are out of range"},
    {"", status::kInvalidDeviceRequest, "the camera is in a state that does not allow it; ask for its status"},
    {"", status::kCancelled, "the request was cancelled; send it again if that was not meant"},
};

} // namespace

std::string advice(std::string_view request, NtStatus status)
{
    for (const Advice &entry : kAdvice)
        if (entry.status == status && (entry.request.empty() || entry.request == request))
            return std::string(entry.text);
    return "look into the driver's trace for the step that failed";
}

} // namespace vqt
