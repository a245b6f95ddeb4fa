# Cross build for Arm64 as the device builds: clang and libc++.
#
# libc++ for Arm64 comes from Debian's arm64 packages, downloaded and unpacked
# (never installed) under AOV_ARM64_LIBCXX_ROOT by scripts/fetch-arm64-libcxx.sh:
# Debian's Arm64 libc++ cannot be installed beside the host's. The C library,
# crt files and libgcc come from the GNU cross toolchain's Arm64 tree.
include(${CMAKE_CURRENT_LIST_DIR}/aarch64-emulator.cmake)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AOV_ARM64_LIBCXX_ROOT)
if(NOT EXISTS "${AOV_ARM64_LIBCXX_ROOT}/usr/lib/aarch64-linux-gnu/libc++.so.1")
  message(FATAL_ERROR "no Arm64 libc++ under AOV_ARM64_LIBCXX_ROOT='${AOV_ARM64_LIBCXX_ROOT}': "
                      "run scripts/fetch-arm64-libcxx.sh first")
endif()
set(aov_libcxx_lib "${AOV_ARM64_LIBCXX_ROOT}/usr/lib/aarch64-linux-gnu")
# The Arm64 package's headers replace the compiler's own search for them, so
# -stdlib=libc++ is a link option here only.
set(CMAKE_CXX_FLAGS_INIT "-nostdinc++ -isystem ${AOV_ARM64_LIBCXX_ROOT}/usr/lib/llvm-14/include/c++/v1")
set(aov_libcxx_link "-stdlib=libc++ -L${aov_libcxx_lib} -Wl,-rpath,${aov_libcxx_lib}")
# -nostdinc++ reaches the link line too, where it means nothing.
string(APPEND aov_libcxx_link " -Wno-unused-command-line-argument")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${aov_libcxx_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${aov_libcxx_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${aov_libcxx_link}")
