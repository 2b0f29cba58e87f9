# Cross compilation for 64-bit Windows with mingw-w64 (the posix thread flavour,
# so the C++ runtime has std::thread for the tests). Programs are linked
# statically: the exe needs no DLL beyond those that ship with Windows.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
find_program(CMAKE_C_COMPILER NAMES ${triple}-gcc-posix ${triple}-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${triple}-g++-posix ${triple}-g++ REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${triple}-windres)

get_filename_component(hostkit_root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH /usr/${triple} "${hostkit_root}/.cache/zstd-mingw")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_CROSSCOMPILING_EMULATOR "${hostkit_root}/scripts/wine-run")
