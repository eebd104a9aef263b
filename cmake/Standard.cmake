# Settings every target of the project imports: language, warnings, version. One place.

set(USBCAM_VERSION 1.0.0)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(USBCAM_SANITIZE none CACHE STRING "none, address or thread")
set_property(CACHE USBCAM_SANITIZE PROPERTY STRINGS none address thread)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_library(usbcam_standard INTERFACE)
target_compile_options(usbcam_standard INTERFACE -Wall -Wextra -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # This compiler sees overlapping copies in every inlined `"text" + string`.
  target_compile_options(usbcam_standard INTERFACE -Wno-restrict)
endif()
target_include_directories(usbcam_standard INTERFACE ${PROJECT_SOURCE_DIR})

# Linux: everything that includes the platform headers sees 16-bit wide characters.
add_library(usbcam_platform INTERFACE)
target_link_libraries(usbcam_platform INTERFACE usbcam_standard)
if(NOT WIN32)
  target_compile_options(usbcam_platform INTERFACE -fshort-wchar -Wno-multichar)
  target_include_directories(usbcam_platform SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/ntos/include)
endif()

# How a driver is compiled on every host: freestanding C++, no exceptions, no RTTI, no run-time initialisation.
add_library(usbcam_kernel INTERFACE)
target_link_libraries(usbcam_kernel INTERFACE usbcam_platform)
target_compile_options(usbcam_kernel INTERFACE -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-strict-aliasing
                                               -Wframe-larger-than=4096)
# As on Windows: unrolling and vectorising further makes stack frames that a kernel stack has no room for.
target_compile_options(usbcam_kernel INTERFACE $<$<CONFIG:Release>:-O2>)

# Sanitized builds look for faults, not for speed, and are built on every push; fuzzers count executions.
if(NOT USBCAM_SANITIZE STREQUAL "none")
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")
  if(USBCAM_FUZZ)
    set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")
  endif()
  # Instrumented code has larger frames, and the compiler sees less far in it.
  target_compile_options(usbcam_standard INTERFACE -Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds)
  target_compile_options(usbcam_kernel INTERFACE -Wno-error=frame-larger-than=)
endif()
if(USBCAM_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(USBCAM_SANITIZE STREQUAL "thread")
  # GCC does not model stand-alone fences under this sanitizer; the sources have them where a mapped frame is copied alone.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan)
  add_link_options(-fsanitize=thread)
endif()
