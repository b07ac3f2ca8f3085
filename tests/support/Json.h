// A small JSON reader for the tests' talk with the reference server's control
// port: enough of RFC 8259 for objects, arrays, strings (with \u escapes,
// turned into UTF-8), numbers, true, false and null.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qvtest {

class JsonValue {
public:
    enum class Type { Null, Bool, Number, String, Array, Object };

    Type type = Type::Null;
    bool boolean = false;
    double number = 0;
    std::string text;                                        // String (UTF-8)
    std::vector<JsonValue> items;                            // Array
    std::vector<std::pair<std::string, JsonValue>> members;  // Object, in order

    bool IsNull() const { return type == Type::Null; }
    // Member of an object by name; a shared null value when absent.
    const JsonValue& operator[](const std::string& name) const;
    // Element of an array; a shared null value when out of range.
    const JsonValue& operator[](size_t index) const;
    size_t Size() const { return type == Type::Array ? items.size() : members.size(); }
    int AsInt(int fallback = 0) const { return type == Type::Number ? static_cast<int>(number) : fallback; }
    const std::string& AsString() const { return text; }
};

// Parses the whole of `in`; false (and *out null) on malformed input.
bool ParseJson(const std::string& in, JsonValue* out);

// `s` as a JSON string literal, quotes included.
std::string JsonQuote(const std::string& s);

// UTF-16 text as a JSON string literal made of ASCII only: every other code
// unit is written as \uXXXX, so control characters and unpaired surrogates
// reach the reader exactly as they are.
std::string JsonQuoteWide(const std::wstring& s);

}  // namespace qvtest
