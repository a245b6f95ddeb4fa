# Shared by the Arm64 toolchain files: programs built for the target run under
# user-mode emulation when qemu is installed, with the cross C library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

find_program(AOV_QEMU_AARCH64 qemu-aarch64-static qemu-aarch64)
if(AOV_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${AOV_QEMU_AARCH64} -L /usr/aarch64-linux-gnu)
endif()
