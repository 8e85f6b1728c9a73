# 32-bit ARM Linux (the devices' target). Programs built with it run under qemu-arm.
#
# Without more, only the core and the unit tests (fake port) build. With
# -DTOVEISTROR_ARM_SYSROOT=DIR, a sysroot made by scripts/arm-sysroot.sh, Debian's armhf
# OpenSSL, Cyrus SASL and MIT Kerberos are found there too, so the POSIX port, the tools
# and the integration tests build, and qemu-arm runs them with DIR as their root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# try_compile projects read this file again: hand them the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TOVEISTROR_ARM_SYSROOT)

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${TOVEISTROR_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Debian's armhf has 32-bit off_t and ino_t; under qemu on ext4, readdir then fails with
# EOVERFLOW. Large-file interfaces keep our own code clear of that (time_t stays 32-bit,
# as in the armhf libraries we link).
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

if(TOVEISTROR_ARM_SYSROOT)
  set(_arm_root ${TOVEISTROR_ARM_SYSROOT})
  if(NOT EXISTS ${_arm_root}/.stamp)
    message(FATAL_ERROR "${_arm_root} is not a sysroot: run scripts/arm-sysroot.sh")
  endif()
  # Headers and libraries where a native build finds them in /usr, so plain -lsasl2 or
  # <sasl/sasl.h> work as they do natively; openssl/configuration.h is in the triple's
  # directory. rpath-link lets the linker follow the libraries' own dependencies.
  foreach(_lang C CXX)
    set(CMAKE_${_lang}_STANDARD_INCLUDE_DIRECTORIES
      ${_arm_root}/usr/include/arm-linux-gnueabihf ${_arm_root}/usr/include)
  endforeach()
  set(_arm_libs ${_arm_root}/usr/lib/arm-linux-gnueabihf ${_arm_root}/lib/arm-linux-gnueabihf)
  set(_arm_link "")
  foreach(_d ${_arm_libs})
    string(APPEND _arm_link " -L${_d} -Wl,-rpath-link,${_d}")
  endforeach()
  foreach(_kind EXE SHARED MODULE)
    set(CMAKE_${_kind}_LINKER_FLAGS_INIT "${_arm_link}")
  endforeach()
  set(ENV{PKG_CONFIG_LIBDIR} "${_arm_root}/usr/lib/arm-linux-gnueabihf/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_arm_root}")
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${_arm_root})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
endif()
