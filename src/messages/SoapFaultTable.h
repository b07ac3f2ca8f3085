// The tables that turn a SOAP 1.2 fault into the module's result code, free
// of any platform header beyond the host interface's types so that they can
// be built and fuzzed natively. ParseLib::SoapErrorCheck reads the fault's
// texts and logs; these decide.
#pragma once

#include <cstddef>
#include <string>

#include "Quorvantis.h"

namespace qv {

// Which service's prefix a subcode name is qualified with.
enum class FaultService { Login, Device };

// One known subcode: compared as a whole with "<prefix>:<name>". A row with
// alsoEquals set must equal that text as well.
struct SubcodeRow {
    const wchar_t* name;
    FaultService service;
    DWORD result;
    const wchar_t* alsoEquals;
};

// The first SOAP 1.2 fault code found anywhere in the Code value, whatever
// its prefix, as a result code; 0 when none is.
DWORD ClassifyCode(const std::wstring& code);

// The first row equal to the whole subcode, or nullptr. The prefixes carry
// their colon ("wls:").
const SubcodeRow* FindSubcode(const std::wstring& subcode, const std::wstring& loginPrefix,
                              const std::wstring& devicePrefix);

// The rows in their order of comparison (for checks of the table itself).
const SubcodeRow* SubcodeRows(size_t* count);

}  // namespace qv
