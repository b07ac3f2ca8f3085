#include "Rfc2202.h"

#include <cstring>

namespace qvcheck {
namespace {

std::vector<BYTE> Repeat(BYTE value, size_t count) { return std::vector<BYTE>(count, value); }

std::vector<BYTE> Text(const char* text) {
    return std::vector<BYTE>(reinterpret_cast<const BYTE*>(text), reinterpret_cast<const BYTE*>(text) + std::strlen(text));
}

// 0x01, 0x02, ... 0x19: the 25-byte key of case 4.
std::vector<BYTE> Counting(BYTE count) {
    std::vector<BYTE> bytes;
    for (BYTE value = 1; value <= count; ++value) bytes.push_back(value);
    return bytes;
}

std::vector<Rfc2202Case> MakeCases() {
    return {
        {1, Repeat(0x0b, 16), Repeat(0x0b, 20), Text("Hi There"), "9294727a3638bb1c13f48ef8158bfc9d",
         "b617318655057264e28bc0b6fb378c8ef146be00"},
        // "Jefe": a short key that is no DES key. 'e' and 'f' have even
        // parity, as have the zero bytes that pad the key to 24: a provider
        // that set DES parity on the imported key would change them.
        {2, Text("Jefe"), Text("Jefe"), Text("what do ya want for nothing?"), "750c783e6ab0b503eaa86e310a5db738",
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {3, Repeat(0xaa, 16), Repeat(0xaa, 20), Repeat(0xdd, 50), "56be34521d144c88dbb8c733f0e8b3f6",
         "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {4, Counting(25), Counting(25), Repeat(0xcd, 50), "697eaf0aca3a3aea3a75164746ffaa79",
         "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {5, Repeat(0x0c, 16), Repeat(0x0c, 20), Text("Test With Truncation"), "56461ef2342edc00f9bab995690efd4c",
         "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
        {6, Repeat(0xaa, 80), Repeat(0xaa, 80), Text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd", "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {7, Repeat(0xaa, 80), Repeat(0xaa, 80),
         Text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
         "6f630fad67cda0ee1fb1f562db3aa53e", "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    };
}

}  // namespace

const std::vector<Rfc2202Case>& Rfc2202Cases() {
    static const std::vector<Rfc2202Case> cases = MakeCases();
    return cases;
}

}  // namespace qvcheck
