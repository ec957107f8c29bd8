# Cross build for arm-linux-gnueabihf with Debian's cross toolchain and multiarch
# libraries (dpkg --add-architecture; scripts/install_deps.sh installs them
# when QZ_TEST_CONFIGS names this configuration). Test programs run under
# qemu-user with the target's C library from /usr/arm-linux-gnueabihf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7-a)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
# Libraries of the target only (the build machine's are another
# architecture): multiarch ones live in /usr/lib/arm-linux-gnueabihf, the cross C
# library in /usr/arm-linux-gnueabihf.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
# Programs are linked statically: Debian 12's qemu-user (7.2) hangs in the
# dynamically linked C library's pthread_create on current kernels, while
# static programs run (the same code; only the loader differs).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(OPENSSL_USE_STATIC_LIBS TRUE)
