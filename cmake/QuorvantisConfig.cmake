# CMake package of the Quorvantis add-in (installed as
# lib/cmake/Quorvantis/QuorvantisConfig.cmake). A consumer writes
#
#   find_package(Quorvantis CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE Quorvantis::Quorvantis)
#
# and gets the folder of Quorvantis.h and the import library Quorvantis.lib;
# the target's location is bin/Quorvantis.dll, which the host loads at run
# time (copy it beside the host, or load it by path). The DLL is 64-bit
# Windows only: QuorvantisConfigVersion.cmake refuses other pointer sizes,
# and a version of another major number.
include("${CMAKE_CURRENT_LIST_DIR}/QuorvantisTargets.cmake")
