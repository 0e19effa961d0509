# How the cross-compiled library is linked: by the bare linker. What the system's library does not
# have is left to be found in the host's process, which brings the libraries.
set(CMAKE_CXX_LINKER_WRAPPER_FLAG "")
set(CMAKE_CXX_LINKER_WRAPPER_FLAG_SEP "")
string(JOIN " " CMAKE_CXX_CREATE_SHARED_LIBRARY
  "<CMAKE_LINKER> -dylib -arch x86_64 -platform_version macos ${VORMLANE_MACOS_VERSION} 14.0"
  "-undefined dynamic_lookup -fatal_warnings <LINK_FLAGS>"
  "<SONAME_FLAG> <TARGET_INSTALLNAME_DIR><TARGET_SONAME> -o <TARGET> <OBJECTS> <LINK_LIBRARIES>"
  "-L${VORMLANE_TOOLCHAIN} -lSystem -needed-lc++")
