# How a driver becomes a .sys, in two flavours that share every object of the driver:
#
#   <build>/<name>.sys        for Windows
#   <build>/wine/<name>.sys   the same objects and windows/wine_missing.cpp, which supplies what Wine's kernel lacks
#
# usbcam_add_sys(<name>
#     SOURCES <file>...       compiled with mingw-w64's g++
#     [GUARDED <file>...]     units with structured exceptions: compiled with clang, whose objects g++'s linker takes
#     [MESSAGES messages.mc]) message table, for windows/<name>.rc
#
# Beside each image stand <name>.objects, the checksums of the objects it was linked from, and <name>.map. The build fails
# when an image is not what a driver has to be: windows/check-image says how. Call it once per directory.

include_guard(GLOBAL)

set(USBCAM_WINDOWS_DIR ${CMAKE_CURRENT_LIST_DIR})
set(USBCAM_DDK_INCLUDE /usr/${USBCAM_TRIPLET}/include/ddk)

# No probe of the stack: no frame may be longer than a page. Unwind tables stay: exceptions are raised through frames of
# ours on the way to their handler.
set(USBCAM_KERNEL_FLAGS
    -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector -fno-strict-aliasing
    -mno-stack-arg-probe -Wno-multichar -Wframe-larger-than=4096
    -include ${USBCAM_WINDOWS_DIR}/kit_gaps.h)
set(USBCAM_KERNEL_DEFINITIONS _AMD64_ NTDDI_VERSION=0x06010000 _WIN32_WINNT=0x0601)
set(USBCAM_SYS_LINK_FLAGS
    -nostdlib -Wl,--subsystem,native:10.0 -Wl,--entry,DriverEntry -Wl,--image-base,0x140000000
    -Wl,--dynamicbase -Wl,--nxcompat -Wl,--no-insert-timestamp -Wl,--disable-runtime-pseudo-reloc -s)

find_program(USBCAM_CLANG NAMES clang++ clang++-14 REQUIRED)
find_program(USBCAM_WINDMC NAMES ${USBCAM_TRIPLET}-windmc REQUIRED)

add_library(usbcam_windows_kernel INTERFACE)
target_compile_options(usbcam_windows_kernel INTERFACE ${USBCAM_KERNEL_FLAGS} -Wall -Wextra -Wconversion -Werror)
target_compile_definitions(usbcam_windows_kernel INTERFACE ${USBCAM_KERNEL_DEFINITIONS})
target_include_directories(usbcam_windows_kernel SYSTEM INTERFACE ${USBCAM_DDK_INCLUDE})
target_include_directories(usbcam_windows_kernel INTERFACE ${PROJECT_SOURCE_DIR})

add_library(usbcam_wine_missing OBJECT ${USBCAM_WINDOWS_DIR}/wine_missing.cpp)
target_link_libraries(usbcam_wine_missing PRIVATE usbcam_windows_kernel)

# One unit compiled by clang; sets <out> to its object.
function(usbcam_add_guarded out source)
  get_filename_component(path ${source} ABSOLUTE)
  get_filename_component(stem ${source} NAME_WE)
  set(object ${CMAKE_CURRENT_BINARY_DIR}/${stem}.clang.obj)
  list(TRANSFORM USBCAM_KERNEL_DEFINITIONS PREPEND -D OUTPUT_VARIABLE definitions)
  add_custom_command(
    OUTPUT ${object}
    COMMAND ${USBCAM_CLANG} --target=${USBCAM_TRIPLET} -fms-extensions -std=gnu++20 -O2 -g0 ${USBCAM_KERNEL_FLAGS}
            -Wall -Wextra -Wconversion -Werror -Wno-sign-conversion -Wno-unused-command-line-argument ${definitions}
            -isystem ${USBCAM_DDK_INCLUDE} -I${PROJECT_SOURCE_DIR}
            -MD -MF ${object}.d -c ${path} -o ${object}
    DEPENDS ${path}
    DEPFILE ${object}.d
    COMMENT "Compiling ${source} with clang"
    VERBATIM)
  set(${out} ${object} PARENT_SCOPE)
endfunction()

# The resources of a driver, windows/<name>.rc; sets <out> to their object.
function(usbcam_add_resources out name messages)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name}_resources)
  set(object ${folder}/${name}.res.obj)
  set(inputs ${USBCAM_WINDOWS_DIR}/${name}.rc ${USBCAM_WINDOWS_DIR}/version.rc)
  file(MAKE_DIRECTORY ${folder})
  if(messages)
    get_filename_component(path ${messages} ABSOLUTE)
    # The texts' line ends are taken from the file as they are; Windows wants both characters.
    add_custom_command(
      OUTPUT ${folder}/messages.rc ${folder}/messages.h ${folder}/MSG00409.bin
      COMMAND sed "s/\\r*$/\\r/" ${path} > ${folder}/messages.mc
      COMMAND ${USBCAM_WINDMC} -U -h ${folder} -r ${folder} ${folder}/messages.mc
      DEPENDS ${path}
      COMMENT "Compiling the messages of ${name}.sys"
      VERBATIM)
    list(APPEND inputs ${folder}/messages.rc ${folder}/MSG00409.bin)
  endif()
  add_custom_command(
    OUTPUT ${object}
    COMMAND ${CMAKE_RC_COMPILER} -I ${folder} -I ${USBCAM_WINDOWS_DIR} -i ${USBCAM_WINDOWS_DIR}/${name}.rc -o ${object}
    DEPENDS ${inputs}
    COMMENT "Compiling the resources of ${name}.sys"
    VERBATIM)
  set(${out} ${object} PARENT_SCOPE)
endfunction()

# One flavour: an image of the given objects in the given directory.
function(usbcam_link_sys target name directory imports)
  set(image ${directory}/${name}.sys)
  add_executable(${target} ${ARGN})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${name} SUFFIX .sys RUNTIME_OUTPUT_DIRECTORY ${directory} LINKER_LANGUAGE CXX
    LINK_DEPENDS "${imports};${USBCAM_WINDOWS_DIR}/check-image;${USBCAM_WINDOWS_DIR}/list-objects")
  target_link_options(${target} PRIVATE ${USBCAM_SYS_LINK_FLAGS} -Wl,-Map,${directory}/${name}.map)
  target_link_libraries(${target} PRIVATE usbd ntoskrnl hal)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${USBCAM_WINDOWS_DIR}/list-objects ${directory}/${name}.map ${directory}/${name}.objects
    COMMAND ${USBCAM_WINDOWS_DIR}/check-image ${image} ${imports}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    COMMENT "Checking ${image}"
    VERBATIM)
endfunction()

function(usbcam_add_sys name)
  cmake_parse_arguments(SYS "" "MESSAGES" "SOURCES;GUARDED" ${ARGN})
  add_library(${name}_objects OBJECT ${SYS_SOURCES})
  target_link_libraries(${name}_objects PRIVATE usbcam_windows_kernel)
  target_include_directories(${name}_objects PRIVATE ${PROJECT_SOURCE_DIR})

  set(guarded "")
  foreach(source ${SYS_GUARDED})
    usbcam_add_guarded(object ${source})
    list(APPEND guarded ${object})
  endforeach()
  usbcam_add_resources(resources ${name} "${SYS_MESSAGES}")

  # Nothing of the user-mode libraries that are linked by default.
  set(CMAKE_CXX_STANDARD_LIBRARIES "" PARENT_SCOPE)
  set(imports ${USBCAM_WINDOWS_DIR}/imports/${name}.txt)
  set(objects $<TARGET_OBJECTS:${name}_objects> ${guarded} ${resources})
  add_custom_target(${name}_extra DEPENDS ${guarded} ${resources})
  set_source_files_properties(${guarded} ${resources} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
  usbcam_link_sys(${name}_sys ${name} ${PROJECT_BINARY_DIR} "${imports}" ${objects})
  usbcam_link_sys(${name}_wine ${name} ${PROJECT_BINARY_DIR}/wine "${imports};${USBCAM_WINDOWS_DIR}/imports/wine.txt"
    ${objects} $<TARGET_OBJECTS:usbcam_wine_missing>)
  add_dependencies(${name}_sys ${name}_extra)
  add_dependencies(${name}_wine ${name}_extra)
endfunction()
