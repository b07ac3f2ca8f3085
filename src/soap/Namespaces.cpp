#include "soap/Namespaces.h"

#include "config/AddinSettings.h"

namespace ns {

std::wstring Wls() { return AddinSettings::Current()->wstrWlsNamespace; }
std::wstring Zeb() { return AddinSettings::Current()->wstrZebNamespace; }

}  // namespace ns
