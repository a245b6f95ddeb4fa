# Cross build for Arm64 with the GNU toolchain and libstdc++.
include(${CMAKE_CURRENT_LIST_DIR}/aarch64-emulator.cmake)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
