#include "common/Module.h"

namespace qv {
namespace {
HMODULE g_module = nullptr;
}
void SetThisModule(HMODULE module) { g_module = module; }
HMODULE ThisModule() { return g_module; }
}  // namespace qv
