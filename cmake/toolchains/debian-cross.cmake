# Shared part of the cross toolchains: Debian's cross compiler for USBD_TRIPLET, the libraries and
# headers from a sysroot of Debian packages for the target (made by scripts/cross-build), Qt's code
# generators from the build machine, and qemu-user to run the target's programs (tests, try_run).
# Expects USBD_TRIPLET, USBD_DEB_ARCH, USBD_QEMU and CMAKE_SYSTEM_PROCESSOR from the including file.

set(CMAKE_SYSTEM_NAME Linux)

# The sysroot defaults to the one scripts/cross-build makes next to the build trees; the variable
# is passed on to try_compile projects, which read this file again.
if(NOT USBD_SYSROOT)
  if(DEFINED ENV{USBD_SYSROOT})
    set(USBD_SYSROOT "$ENV{USBD_SYSROOT}")
  else()
    get_filename_component(USBD_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-${USBD_DEB_ARCH}" ABSOLUTE)
  endif()
endif()
set(USBD_SYSROOT "${USBD_SYSROOT}" CACHE PATH "Sysroot of Debian packages for the target")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES USBD_SYSROOT)
if(NOT EXISTS "${USBD_SYSROOT}/usr/include/${USBD_TRIPLET}")
  message(FATAL_ERROR "No sysroot for ${USBD_DEB_ARCH} at ${USBD_SYSROOT}; scripts/cross-build makes it")
endif()

set(CMAKE_SYSROOT "${USBD_SYSROOT}")
set(CMAKE_C_COMPILER ${USBD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${USBD_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${USBD_TRIPLET})

# Libraries, headers and CMake packages only from the sysroot; programs (moc, pkg-config) from the
# build machine.
set(CMAKE_FIND_ROOT_PATH "${USBD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${USBD_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${USBD_SYSROOT}/usr/lib/${USBD_TRIPLET}/pkgconfig:${USBD_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The target's programs run under qemu-user with the sysroot as their library prefix: ctest puts
# this in front of every test command that is a target of this build.
set(CMAKE_CROSSCOMPILING_EMULATOR ${USBD_QEMU} -L ${USBD_SYSROOT})

# Qt's code generators in the sysroot (if any) are built for the target, and its package files
# insist that they exist; they only define these imported targets if they do not exist yet, so
# the build machine's own come first.
foreach(tool IN ITEMS moc rcc qmake qdbuscpp2xml qdbusxml2cpp)
  if(NOT TARGET Qt5::${tool} AND EXISTS /usr/lib/qt5/bin/${tool})
    add_executable(Qt5::${tool} IMPORTED GLOBAL)
    set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION /usr/lib/qt5/bin/${tool})
  endif()
endforeach()
