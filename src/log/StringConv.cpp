#include "log/StringConv.h"

#include <cstdlib>

wchar_t* ConvertMultiToWide(const char* source) {
    if (!source || !*source) return nullptr;
    int length = MultiByteToWideChar(CP_UTF8, 0, source, -1, nullptr, 0);
    if (length <= 0) return nullptr;
    // length counts the terminator; the buffer is (length * 2 + 2) bytes.
    auto* buffer = static_cast<wchar_t*>(std::calloc(static_cast<size_t>(length) + 1, sizeof(wchar_t)));
    if (!buffer) return nullptr;
    if (MultiByteToWideChar(CP_UTF8, 0, source, -1, buffer, length) <= 0) {
        // A failed conversion may have written part of a secret.
        SecureZeroMemory(buffer, (static_cast<size_t>(length) + 1) * sizeof(wchar_t));
        std::free(buffer);
        return nullptr;
    }
    return buffer;
}

char* ConvertWideToMulti(const wchar_t* source, UINT codePage, DWORD* outLength) {
    if (outLength) *outLength = 0;
    if (!source || !*source) return nullptr;
    int length = WideCharToMultiByte(codePage, 0, source, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return nullptr;
    auto* buffer = static_cast<char*>(std::calloc(static_cast<size_t>(length) + 1, 1));
    if (!buffer) return nullptr;
    if (WideCharToMultiByte(codePage, 0, source, -1, buffer, length, nullptr, nullptr) <= 0) {
        // A failed conversion may have written part of a secret.
        SecureZeroMemory(buffer, static_cast<size_t>(length) + 1);
        std::free(buffer);
        return nullptr;
    }
    if (outLength) *outLength = static_cast<DWORD>(length - 1);
    return buffer;
}

char* ConvertWideToMulti(const wchar_t* source, UINT codePage) {
    return ConvertWideToMulti(source, codePage, nullptr);
}

char* ConvertWideToAnsi(const wchar_t* source) { return ConvertWideToMulti(source, CP_ACP, nullptr); }

namespace qv {

std::wstring Utf8ToWide(const char* source, size_t length) {
    if (!source || length == 0) return std::wstring();
    int count = MultiByteToWideChar(CP_UTF8, 0, source, static_cast<int>(length), nullptr, 0);
    if (count <= 0) return std::wstring();
    std::wstring result(static_cast<size_t>(count), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, source, static_cast<int>(length), &result[0], count);
    return result;
}

std::string WideToUtf8(const std::wstring& source) {
    if (source.empty()) return std::string();
    int count = WideCharToMultiByte(CP_UTF8, 0, source.data(), static_cast<int>(source.size()), nullptr, 0,
                                    nullptr, nullptr);
    if (count <= 0) return std::string();
    std::string result(static_cast<size_t>(count), '\0');
    WideCharToMultiByte(CP_UTF8, 0, source.data(), static_cast<int>(source.size()), &result[0], count, nullptr,
                        nullptr);
    return result;
}

}  // namespace qv
