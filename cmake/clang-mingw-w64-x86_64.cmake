# Cross-compile for 64-bit Windows with Debian's clang (clang-14) against the
# MinGW-w64 headers and libraries of the GCC cross compiler (posix thread
# model: its libstdc++, libgcc and winpthreads), link with lld, and run target
# programs (tests, tools) under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(QV_MINGW_PREFIX x86_64-w64-mingw32)
set(QV_MINGW_SYSROOT /usr/${QV_MINGW_PREFIX})

find_program(QV_CLANG NAMES clang-14 clang REQUIRED)
find_program(QV_CLANGXX NAMES clang++-14 clang++ REQUIRED)
find_program(QV_LLD NAMES ld.lld-14 ld.lld REQUIRED)
set(CMAKE_C_COMPILER   ${QV_CLANG})
set(CMAKE_CXX_COMPILER ${QV_CLANGXX})
set(CMAKE_C_COMPILER_TARGET   ${QV_MINGW_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${QV_MINGW_PREFIX})
set(CMAKE_RC_COMPILER  ${QV_MINGW_PREFIX}-windres)
set(CMAKE_SYSROOT ${QV_MINGW_SYSROOT})

# clang-14 cannot find GCC's MinGW folder by itself: it reads the version
# from the folder name, and Debian's is "12-posix". Name it here: the C++
# headers, and libstdc++/libgcc for the link.
file(GLOB QV_MINGW_GCC_DIRS LIST_DIRECTORIES true /usr/lib/gcc/${QV_MINGW_PREFIX}/*-posix/include/c++)
if(NOT QV_MINGW_GCC_DIRS)
  message(FATAL_ERROR "no MinGW-w64 GCC (posix) with libstdc++ under /usr/lib/gcc/${QV_MINGW_PREFIX} "
                      "(scripts/setup-deps installs g++-mingw-w64-x86-64-posix)")
endif()
list(SORT QV_MINGW_GCC_DIRS COMPARE NATURAL ORDER DESCENDING)
list(GET QV_MINGW_GCC_DIRS 0 QV_MINGW_GCC_DIR)
get_filename_component(QV_MINGW_GCC_DIR "${QV_MINGW_GCC_DIR}/../.." ABSOLUTE)

# What every compile and link with this toolchain needs. The top CMakeLists
# applies these lists to all targets (add_compile_options, add_link_options),
# so that CMAKE_CXX_FLAGS and CMAKE_*_LINKER_FLAGS stay free for the user
# (a debug or PDB build, say) and do not drop them when set.
# - libstdc++'s headers, as system headers.
# - -femulated-tls: libstdc++ was built by GCC, whose thread-local variables
#   on MinGW are emulated (__emutls_v.*); code that reaches them through the
#   headers (std::call_once, for one) must use the same model, or it does not
#   link.
# - GCC tells libstdc++ that type_info equality is not inline on MinGW
#   (libstdc++.a defines it once); clang-14 does not, and the header would put
#   a second definition into every object that compares types.
# - lld in its MinGW mode (unlike GNU ld it resolves archives in any order),
#   GCC's library folder, and winpthreads, which GCC's posix driver adds by
#   itself and clang's does not (libstdc++'s threads need it).
set(QV_TOOLCHAIN_COMPILE_OPTIONS
  $<$<COMPILE_LANGUAGE:C,CXX>:-femulated-tls>
  $<$<COMPILE_LANGUAGE:CXX>:-isystem${QV_MINGW_GCC_DIR}/include/c++>
  $<$<COMPILE_LANGUAGE:CXX>:-isystem${QV_MINGW_GCC_DIR}/include/c++/${QV_MINGW_PREFIX}>
  $<$<COMPILE_LANGUAGE:CXX>:-isystem${QV_MINGW_GCC_DIR}/include/c++/backward>
  $<$<COMPILE_LANGUAGE:CXX>:-D__GXX_TYPEINFO_EQUALITY_INLINE=0>
  $<$<COMPILE_LANGUAGE:CXX>:-D__GXX_MERGED_TYPEINFO_NAMES=0>)
set(QV_TOOLCHAIN_LINK_OPTIONS -fuse-ld=lld --ld-path=${QV_LLD} -L${QV_MINGW_GCC_DIR} -lpthread)
# CMake's own compiler checks compile only (they would link without the
# options above).
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH ${QV_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every target program runs through the wrapper, which points Wine at the
# build tree's private prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
