# The toolchain for 64-bit Arm: Debian's cross compiler. The libraries are in build/arm64-root, which
# `./test arm64` creates from arm64 packages. The programs run under user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(arm64_root ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-root)
cmake_path(NORMAL_PATH arm64_root)
set(CMAKE_FIND_ROOT_PATH ${arm64_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The C and C++ libraries come from the compiler's package. The linker finds the libraries that other
# libraries need in these folders.
foreach(folder lib usr/lib lib/aarch64-linux-gnu usr/lib/aarch64-linux-gnu
               usr/lib/aarch64-linux-gnu/android)
    string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${arm64_root}/${folder}")
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${arm64_root})
