# Cross build for 32-bit ARM with hardware floating point (Debian armhf):
# cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(USBD_TRIPLET arm-linux-gnueabihf)
set(USBD_DEB_ARCH armhf)
set(USBD_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
# GCC notes every std::vector of 64-bit elements whose argument passing changed in GCC 7.1 on
# this ABI; nothing here mixes code built before that.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
