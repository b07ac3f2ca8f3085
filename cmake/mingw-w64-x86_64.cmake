# Cross-compile for 64-bit Windows with MinGW-w64 (posix thread model) and
# run target programs (tests, tools) under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(QV_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   ${QV_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QV_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER  ${QV_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${QV_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every target program runs through the wrapper, which points Wine at the
# build tree's private prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
