// The hex form of the SDL/SDL2 digests, free of any platform header so that
// it can be built and fuzzed natively.
#pragma once

#include <cstdint>

namespace qv {

// Lowercase hex of data, malloc'd and zero-terminated (2 * size characters);
// null when out of memory.
char* HexText(const uint8_t* data, uint32_t size);

// The bytes of `pairs` pairs of hex digits. Each pair is read as a base-16
// number: reading stops at the first character that is no hex digit, as a
// numeric parse would ("7x" gives 7, "x7" gives 0).
void HexPairsToBytes(const char* text, uint32_t pairs, uint8_t* out);

}  // namespace qv
