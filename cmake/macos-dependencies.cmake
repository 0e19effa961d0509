# The headers of what this project calls, for cross-compiling to macOS: those of the Debian
# packages, gathered in one folder so that nothing else of the build machine's comes with them. The
# libraries themselves are not needed.
include_guard()
set(headers ${CMAKE_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${headers}/event2 ${headers}/openssl)

# for_macos(HEADER PATH EDITS...): writes the macOS counterpart of a header that was configured for
# Linux; each edit is a regular expression and what takes its place.
function(for_macos header path)
  file(READ ${path} text)
  while(ARGN)
    list(POP_FRONT ARGN pattern replacement)
    string(REGEX REPLACE "${pattern}" "${replacement}" edited "${text}")
    if(edited STREQUAL text)
      message(FATAL_ERROR "${path} has nothing that matches ${pattern}; it is not the header that "
        "${CMAKE_CURRENT_FUNCTION_LIST_FILE} makes a macOS header of.")
    endif()
    set(text "${edited}")
  endwhile()
  file(CONFIGURE OUTPUT ${headers}/${header} CONTENT "${text}" @ONLY)
endfunction()

# What the kernel and glibc have and macOS has not, and the reverse.
pkg_get_variable(directory libevent_core includedir)
for_macos(event2/event-config.h ${directory}/event2/event-config.h
  "#define (EVENT__HAVE_(ACCEPT4|EPOLL|EPOLL_CREATE1|EPOLL_CTL|EVENTFD|GETRANDOM|PIPE2|SPLICE)) 1"
  "/* #undef \\1 */"
  "#define (EVENT__HAVE_(SYS_(EPOLL|EVENTFD|SENDFILE|TIMERFD)_H|TIMERFD_CREATE)) 1"
  "/* #undef \\1 */"
  "#define (EVENT__HAVE_STRUCT_IN6_ADDR_S6_ADDR(16|32)) 1"
  "/* #undef \\1 */"
  "/\\* #undef (EVENT__HAVE_(KQUEUE|SYSCTL|SYS_EVENT_H|SYS_SYSCTL_H|WORKING_KQUEUE)) \\*/"
  "#define \\1 1"
  "/\\* #undef (EVENT__HAVE_(ISSETUGID|STRLCPY)) \\*/"
  "#define \\1 1"
  "/\\* #undef (EVENT__HAVE_MACH_(ABSOLUTE_TIME|MACH_H|MACH_TIME_H)) \\*/"
  "#define \\1 1")

# The kernel's ciphers and its TLS are Linux's. Debian keeps this header by architecture.
pkg_get_variable(directory libcrypto libdir)
cmake_path(GET directory FILENAME architecture)
pkg_get_variable(directory libcrypto includedir)
for_macos(openssl/configuration.h ${directory}/${architecture}/openssl/configuration.h
  "# define OPENSSL_CONFIGURED_API"
  "# define OPENSSL_SYS_MACOSX 1\n# define OPENSSL_NO_AFALGENG\n# define OPENSSL_NO_KTLS\n\\0")

# gather(PACKAGE PATTERN [DIRECTORY]): links the package's headers into the folder or its DIRECTORY.
function(gather package pattern)
  pkg_get_variable(root ${package} includedir)
  file(GLOB found ${root}/${pattern})
  if(NOT found)
    message(FATAL_ERROR "${root}/${pattern}, headers of ${package}, are missing: run scripts/setup")
  endif()
  foreach(header ${found})
    cmake_path(GET header FILENAME name)
    if(NOT EXISTS ${headers}/${ARGV2}/${name})
      file(CREATE_LINK ${header} ${headers}/${ARGV2}/${name} SYMBOLIC)
    endif()
  endforeach()
endfunction()

# The rest serves as it is.
gather(libcurl curl)
gather(jsoncpp json)
gather(libcrypto++ cryptopp)
gather(libuv uv)
gather(libuv uv.h)
gather(zlib zlib.h)
gather(zlib zconf.h)
gather(libevent_core event2/*.h event2)
gather(libcrypto openssl/*.h openssl)
gather(libcrypto ${architecture}/openssl/opensslconf.h openssl)

# Under the names that pkg-config gives them elsewhere.
foreach(library CURL JSONCPP EVENT CRYPTO SSL ZLIB CRYPTOPP UV)
  add_library(PkgConfig::${library} INTERFACE IMPORTED)
  target_include_directories(PkgConfig::${library} INTERFACE ${headers})
endforeach()
