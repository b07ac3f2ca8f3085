// Result-code helpers shared by every layer. The codes themselves are the
// public ones in Quorvantis.h.
#pragma once

#include "Quorvantis.h"

namespace qv {

using Result = DWORD;

// A value is a failure exactly when it shares a bit with 0xD5000000; lower
// layers may report 1, which counts as success like 0.
constexpr bool Failed(Result code) { return (code & ZEB_FAILURE_MASK) != 0; }
constexpr bool Succeeded(Result code) { return !Failed(code); }

}  // namespace qv
