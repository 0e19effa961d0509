# Compiler settings shared by every target of this project.
set(VORMLANE_SANITIZE "" CACHE STRING "Value of -fsanitize=, or empty")
option(VORMLANE_LIBRARY_ONLY "Build the plug-in alone" OFF)
# macOS has nothing else; on Linux this is how to meet it without a Mac.
option(VORMLANE_LIBUV "Let uWebSockets run on libuv instead of epoll" ${APPLE})

set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")

add_library(vormlane_options INTERFACE)
target_compile_options(vormlane_options INTERFACE
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Werror)
# Clang also means the formats that a log is handed together with their arguments.
target_compile_options(vormlane_options INTERFACE
  $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wno-format-nonliteral>)
target_include_directories(vormlane_options INTERFACE ${CMAKE_SOURCE_DIR})

if(VORMLANE_SANITIZE)
  add_compile_options(-fsanitize=${VORMLANE_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VORMLANE_SANITIZE})
  # GCC's flow analysis reports maybe-uninitialized inside libstdc++ once code is instrumented.
  target_compile_options(vormlane_options INTERFACE -Wno-maybe-uninitialized)
endif()
