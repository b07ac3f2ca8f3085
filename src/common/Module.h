// The add-in's own module handle, stored at process attach. Null when the
// code runs outside the DLL (unit tests), which makes module-relative names
// relative to the running program instead.
#pragma once

#include <windows.h>

namespace qv {
void SetThisModule(HMODULE module);
HMODULE ThisModule();
}  // namespace qv
