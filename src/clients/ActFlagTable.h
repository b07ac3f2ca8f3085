// The ACT flag bits and the access-control values (ACV) the device service
// knows them by, free of any platform header so that the table can be built
// and fuzzed natively. WSDrvCommClient::ConvertFlagToValue writes the values
// as text.
#pragma once

#include <cstdint>
#include <vector>

namespace qv {

// The ACV values for actFlags in wire order; no flag at all asks for the
// single value 0, and bits without a row are ignored. May throw
// std::bad_alloc.
std::vector<int> ActValuesForFlags(uint32_t actFlags);

}  // namespace qv
