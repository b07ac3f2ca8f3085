#include "clients/ActFlagTable.h"

namespace {

// ACT flag bit -> the ACV value the device service knows it by. The row order
// is the order of the values on the wire and must not be sorted.
struct FlagValueRow {
    uint32_t flag;
    int value;
};
constexpr FlagValueRow kFlagValues[] = {
    {0x00000002, 257},
    {0x00000004, 258},
    {0x00000001, 256},  // after 257 and 258, as the service expects
    {0x00000200, 513},
    {0x00000400, 514},
    {0x00000800, 515},
    {0x00001000, 516},
    {0x00002000, 517},
    {0x00000100, 512},  // after 513-517
    {0x00020000, 769},
    {0x00040000, 770},
    {0x00010000, 768},  // after 769 and 770
};

}  // namespace

namespace qv {

std::vector<int> ActValuesForFlags(uint32_t actFlags) {
    std::vector<int> values;
    if (actFlags == 0) {
        values.push_back(0);
        return values;
    }
    for (const FlagValueRow& row : kFlagValues)
        if (actFlags & row.flag) values.push_back(row.value);
    return values;
}

}  // namespace qv
