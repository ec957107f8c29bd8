# Cross build for aarch64-linux-gnu with Debian's cross toolchain and multiarch
# libraries (dpkg --add-architecture; scripts/install_deps.sh installs them
# when QZ_TEST_CONFIGS names this configuration). Test programs run under
# qemu-user with the target's C library from /usr/aarch64-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/usr/aarch64-linux-gnu)
# Libraries of the target only (the build machine's are another
# architecture): multiarch ones live in /usr/lib/aarch64-linux-gnu, the cross C
# library in /usr/aarch64-linux-gnu.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /usr/lib/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Programs are linked statically: Debian 12's qemu-user (7.2) hangs in the
# dynamically linked C library's pthread_create on current kernels, while
# static programs run (the same code; only the loader differs).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(OPENSSL_USE_STATIC_LIBS TRUE)
