// Base64 with CR LF after every complete 76-character line (the line breaks
// stay in every Base64 field sent), and a tolerant decoder that skips any
// character outside the alphabet.
#pragma once

#include <windows.h>

#include <string>

// Returns the Base64 text of `size` bytes, or an empty string on any failure
// (null data, size 0, no memory); callers treat empty as ZEB_ERROR_OUTOFMEMORY.
std::wstring Base64Encoding(const BYTE* data, DWORD size);

// Decodes `text` into a new malloc'd buffer (*data, freed with free()) and
// returns its byte count; 0 (and *data null) on any failure or empty input.
DWORD Base64Decoding(const std::wstring& text, BYTE** data);
