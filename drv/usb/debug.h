// The debug trace. Every message is two prints: where it comes from, then what it says.
#pragma once

// Each source names its module once, in front of its first print: the path without the extension.
//   USBCAM_MODULE("drv/usb/driver")
#define USBCAM_MODULE(Path) \
    namespace {             \
    constexpr char kModule[] = Path; \
    }

// A routine that a handler was split from keeps its name in the trace: DebugPrintAs("USBCAM_DispatchDeviceControl", ...).
#define DebugPrintAs(Routine, ...)                                      \
    do {                                                                \
        DbgPrint("%s(%d), %s() : ", kModule, __LINE__, Routine);        \
        DbgPrint(__VA_ARGS__);                                          \
    } while (false)

#define ErrorPrintAs(Routine, ...)                                      \
    do {                                                                \
        DbgPrint("ERROR! %s(%d), %s() : ", kModule, __LINE__, Routine); \
        DbgPrint(__VA_ARGS__);                                          \
    } while (false)

#define DebugPrint(...) DebugPrintAs(__func__, __VA_ARGS__)
#define ErrorPrint(...) ErrorPrintAs(__func__, __VA_ARGS__)
