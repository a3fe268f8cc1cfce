# Cross-compiles for Windows x64 with MinGW-w64 (the POSIX threads flavour, which gives
# std::thread and std::mutex). The C and C++ runtimes and winpthread are linked statically, so
# vexshmrm.dll and the test programs need no DLLs beside the system's.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every library that has a static form is linked statically (the system's import libraries
# stay what they are).
set(static_runtime "-static")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${static_runtime}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${static_runtime}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${static_runtime}")
