# The panel's processor: 32-bit ARM with hardware floating point, by Debian's cross compiler. The target's own libraries
# lie unpacked in build/armhf-root (scripts/armhf-root); the emulator runs the tests on them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(root ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-root ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${root} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
set(ENV{PKG_CONFIG_LIBDIR} ${root}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${root})

# Libraries that are nothing but headers are the same for every target: the build machine's, looked at last.
set(CMAKE_CXX_FLAGS_INIT "-idirafter /usr/include -Wno-psabi")  # the whole program is built by one compiler
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/armhf)
