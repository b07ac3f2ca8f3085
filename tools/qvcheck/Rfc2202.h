// The test cases of RFC 2202 ("Test Cases for HMAC-MD5 and HMAC-SHA-1"),
// seven for each hash. The MD5 and SHA-1 cases share their data; their keys
// differ in length (16 and 20 bytes) in cases 1, 3 and 5.
#pragma once

#include <windows.h>

#include <vector>

namespace qvcheck {

struct Rfc2202Case {
    int number;
    std::vector<BYTE> md5Key;
    std::vector<BYTE> sha1Key;
    std::vector<BYTE> data;
    const char* md5;   // expected HMAC-MD5, lower-case hex
    const char* sha1;  // expected HMAC-SHA1, lower-case hex
};

const std::vector<Rfc2202Case>& Rfc2202Cases();

}  // namespace qvcheck
