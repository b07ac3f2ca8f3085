# Initial cache of the release package's tree (scripts/package):
#   cmake -S . -B build-package -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/clang-mingw-w64-x86_64.cmake -C cmake/package.cmake
# clang and lld, Release, the DLL with its PDB, no tests; and a reproducible
# build: the same sources give the same bytes wherever the source and build
# trees are.
#   - Paths: the source tree is named C:/Quorvantis and the build tree
#     C:/Quorvantis/build in the debug information and in __FILE__ (the
#     trace log prints base names only); lld makes the object and library
#     paths in the PDB absolute under that same build folder.
#   - Time: lld's /Brepro writes a hash of the image where the PE header's
#     time stamp goes, in the DLL and the programs.
# Every value is forced, so that a tree configured before gets them again.
get_filename_component(_qv_source "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(_qv_build "${CMAKE_BINARY_DIR}")
set(_qv_virtual_source "C:/Quorvantis")
set(_qv_virtual_build "C:/Quorvantis/build")

set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
set(QV_BUILD_TESTS OFF CACHE BOOL "" FORCE)
set(QV_PDB ON CACHE BOOL "" FORCE)
set(_qv_map "-ffile-prefix-map=${_qv_build}=${_qv_virtual_build} -ffile-prefix-map=${_qv_source}=${_qv_virtual_source}")
set(CMAKE_C_FLAGS "${_qv_map}" CACHE STRING "" FORCE)
set(CMAKE_CXX_FLAGS "${_qv_map}" CACHE STRING "" FORCE)
set(_qv_link "-Wl,--Xlink=-Brepro -Wl,--Xlink=-pdbsourcepath:${_qv_virtual_build}")
set(CMAKE_SHARED_LINKER_FLAGS "${_qv_link}" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS "${_qv_link}" CACHE STRING "" FORCE)
