// The Base64 codec itself, free of any platform header so that it can be
// built and fuzzed natively: the alphabet, line breaks after every complete
// 76-character line, and the tolerant decoder. Base64Encoding and
// Base64Decoding (Base64.h) wrap it with the module's buffers and logging.
#pragma once

#include <cstdint>

namespace qv {

// The text length the encoder may need for `size` bytes, line ends included
// (the sum is generous for short last lines). False when size x 4 would not
// fit a signed 32-bit count.
bool EncodedLength(uint32_t size, uint32_t* length);

// Writes the Base64 text of `data` into `out` (capacity `capacity` bytes,
// terminator not counted) with CR LF after every complete 76-character line.
// False if the text would not fit.
bool Base64Encode(const uint8_t* data, uint32_t size, char* out, uint32_t capacity);

// Decodes `text` (stopping at its end or a zero byte) into `out`, which holds
// at least `length` bytes; characters outside the alphabet are skipped.
// Returns the byte count.
uint32_t Base64Decode(const char* text, uint32_t length, uint8_t* out);

}  // namespace qv
