# What this project calls and does not own. Debian packages by pkg-config; uWebSockets' C++ core is
# published inside an npm package and is fetched, checked and built here.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
if(CMAKE_CROSSCOMPILING)
  include(macos-dependencies)
else()
  pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
  pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
  pkg_check_modules(EVENT REQUIRED IMPORTED_TARGET libevent_core)
  pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET libcrypto)
  pkg_check_modules(SSL REQUIRED IMPORTED_TARGET libssl)
  pkg_check_modules(ZLIB REQUIRED IMPORTED_TARGET zlib)
  # Debian's name and everybody else's.
  pkg_search_module(CRYPTOPP REQUIRED IMPORTED_TARGET libcrypto++ libcryptopp)
  if(VORMLANE_LIBUV)
    pkg_check_modules(UV REQUIRED IMPORTED_TARGET libuv)
  endif()
  if(NOT APPLE)  # macOS has it in its system library
    pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
  endif()
endif()

set(UWS_DIR ${CMAKE_SOURCE_DIR}/build/third_party/uws-9.14.0)
if(NOT EXISTS ${UWS_DIR}/src/Hub.h)
  execute_process(
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/fetch-npm-package uws 9.14.0
      1cd333b4f3f9035b0ab95166759e813d5a4141de5b523342f0414c1622022bea21a3f390b00272e619c8c786ed30788e93c8f4e1ffc36c896a9c467d77bd9daa
      ${UWS_DIR}
    COMMAND_ERROR_IS_FATAL ANY)
endif()
set(UWS_SOURCES Epoll Extensions Group HTTPSocket Hub Networking Node Socket WebSocket)
list(TRANSFORM UWS_SOURCES PREPEND ${UWS_DIR}/src/)
list(TRANSFORM UWS_SOURCES APPEND .cpp)
add_library(uws STATIC ${UWS_SOURCES})
target_include_directories(uws SYSTEM INTERFACE ${UWS_DIR}/src)
target_link_libraries(uws PUBLIC PkgConfig::SSL PkgConfig::CRYPTO PkgConfig::ZLIB Threads::Threads)
if(VORMLANE_LIBUV)
  target_link_libraries(uws PUBLIC PkgConfig::UV)
  target_compile_definitions(uws PUBLIC USE_LIBUV)
endif()
# Not our code: its warnings are not ours to fix.
target_compile_options(uws PRIVATE -w)
# It copies nothing from nowhere, which the undefined-behaviour sanitizer objects to.
target_compile_options(uws PRIVATE -fno-sanitize=undefined)
# It deletes its polls through a base class without a virtual destructor, so the size that a sized
# deallocation would pass is not the size that was allocated.
target_compile_options(uws PUBLIC $<$<COMPILE_LANGUAGE:CXX>:-fno-sized-deallocation>)

if(NOT VORMLANE_LIBRARY_ONLY)
  # cpp-httplib with the definitions that Debian compiled it with: they shape its classes, and the
  # tests link the emulator with the host.
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
