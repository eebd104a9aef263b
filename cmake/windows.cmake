# Toolchain: x86-64 Windows from Linux, with mingw-w64. How a driver is linked is in windows/Driver.cmake.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(USBCAM_TRIPLET x86_64-w64-mingw32)

# Programs need std::thread: the flavour of the compiler with POSIX threads. Drivers link no runtime at all.
set(CMAKE_C_COMPILER ${USBCAM_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${USBCAM_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${USBCAM_TRIPLET}-windres)

# Programs run on a Windows without anything installed first.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

set(CMAKE_FIND_ROOT_PATH /usr/${USBCAM_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
