// The escaping of user input for XML text and attribute values, free of any
// platform header so that it can be built and fuzzed natively.
// SoapRequest::SanitizeUserInputStr wraps it with its logging.
#pragma once

#include <cstddef>
#include <string>

namespace qv {

// " & ' < > become entities; control characters (below 0x20) and 0x7F become
// a blank. *blanked (if given) receives how many control characters were
// replaced (0x7F not counted).
std::wstring EscapeUserInput(const std::wstring& text, size_t* blanked);

}  // namespace qv
