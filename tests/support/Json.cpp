#include "support/Json.h"

#include <cstdio>
#include <cstdlib>

namespace qvtest {

namespace {

const JsonValue& NullValue() {
    static const JsonValue value;
    return value;
}

class Parser {
public:
    explicit Parser(const std::string& in) : m_in(in) {}

    bool ParseDocument(JsonValue* out) {
        if (!ParseValue(out, 0)) return false;
        SkipBlanks();
        return m_pos == m_in.size();
    }

private:
    static const int kMaxDepth = 64;

    void SkipBlanks() {
        while (m_pos < m_in.size() &&
               (m_in[m_pos] == ' ' || m_in[m_pos] == '\t' || m_in[m_pos] == '\r' || m_in[m_pos] == '\n'))
            ++m_pos;
    }

    bool Literal(const char* word) {
        size_t n = std::char_traits<char>::length(word);
        if (m_in.compare(m_pos, n, word) != 0) return false;
        m_pos += n;
        return true;
    }

    bool ParseValue(JsonValue* out, int depth) {
        if (depth > kMaxDepth) return false;
        SkipBlanks();
        if (m_pos >= m_in.size()) return false;
        char c = m_in[m_pos];
        if (c == '{') return ParseObject(out, depth);
        if (c == '[') return ParseArray(out, depth);
        if (c == '"') {
            out->type = JsonValue::Type::String;
            return ParseString(&out->text);
        }
        if (Literal("true")) {
            out->type = JsonValue::Type::Bool;
            out->boolean = true;
            return true;
        }
        if (Literal("false")) {
            out->type = JsonValue::Type::Bool;
            return true;
        }
        if (Literal("null")) return true;
        return ParseNumber(out);
    }

    bool ParseNumber(JsonValue* out) {
        size_t start = m_pos;
        while (m_pos < m_in.size() && std::string("+-0123456789.eE").find(m_in[m_pos]) != std::string::npos) ++m_pos;
        if (m_pos == start) return false;
        std::string digits = m_in.substr(start, m_pos - start);
        char* end = nullptr;
        out->number = std::strtod(digits.c_str(), &end);
        if (end != digits.c_str() + digits.size()) return false;
        out->type = JsonValue::Type::Number;
        return true;
    }

    static void AppendUtf8(std::string* s, unsigned long cp) {
        if (cp < 0x80) {
            s->push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            s->push_back(static_cast<char>(0xC0 | (cp >> 6)));
            s->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            s->push_back(static_cast<char>(0xE0 | (cp >> 12)));
            s->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            s->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            s->push_back(static_cast<char>(0xF0 | (cp >> 18)));
            s->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            s->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            s->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }

    bool Hex4(unsigned long* cp) {
        if (m_pos + 4 > m_in.size()) return false;
        std::string hex = m_in.substr(m_pos, 4);
        char* end = nullptr;
        *cp = std::strtoul(hex.c_str(), &end, 16);
        if (end != hex.c_str() + 4) return false;
        m_pos += 4;
        return true;
    }

    bool ParseString(std::string* out) {
        ++m_pos;  // opening quote
        out->clear();
        while (m_pos < m_in.size()) {
            char c = m_in[m_pos++];
            if (c == '"') return true;
            if (c != '\\') {
                out->push_back(c);
                continue;
            }
            if (m_pos >= m_in.size()) return false;
            char e = m_in[m_pos++];
            switch (e) {
                case '"': out->push_back('"'); break;
                case '\\': out->push_back('\\'); break;
                case '/': out->push_back('/'); break;
                case 'b': out->push_back('\b'); break;
                case 'f': out->push_back('\f'); break;
                case 'n': out->push_back('\n'); break;
                case 'r': out->push_back('\r'); break;
                case 't': out->push_back('\t'); break;
                case 'u': {
                    unsigned long cp = 0;
                    if (!Hex4(&cp)) return false;
                    if (cp >= 0xD800 && cp < 0xDC00 && m_in.compare(m_pos, 2, "\\u") == 0) {
                        m_pos += 2;
                        unsigned long low = 0;
                        if (!Hex4(&low)) return false;
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    }
                    AppendUtf8(out, cp);
                    break;
                }
                default: return false;
            }
        }
        return false;
    }

    bool ParseArray(JsonValue* out, int depth) {
        ++m_pos;
        out->type = JsonValue::Type::Array;
        SkipBlanks();
        if (m_pos < m_in.size() && m_in[m_pos] == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            out->items.emplace_back();
            if (!ParseValue(&out->items.back(), depth + 1)) return false;
            SkipBlanks();
            if (m_pos >= m_in.size()) return false;
            char c = m_in[m_pos++];
            if (c == ']') return true;
            if (c != ',') return false;
        }
    }

    bool ParseObject(JsonValue* out, int depth) {
        ++m_pos;
        out->type = JsonValue::Type::Object;
        SkipBlanks();
        if (m_pos < m_in.size() && m_in[m_pos] == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            SkipBlanks();
            if (m_pos >= m_in.size() || m_in[m_pos] != '"') return false;
            std::string name;
            if (!ParseString(&name)) return false;
            SkipBlanks();
            if (m_pos >= m_in.size() || m_in[m_pos++] != ':') return false;
            out->members.emplace_back(name, JsonValue());
            if (!ParseValue(&out->members.back().second, depth + 1)) return false;
            SkipBlanks();
            if (m_pos >= m_in.size()) return false;
            char c = m_in[m_pos++];
            if (c == '}') return true;
            if (c != ',') return false;
        }
    }

    const std::string& m_in;
    size_t m_pos = 0;
};

}  // namespace

const JsonValue& JsonValue::operator[](const std::string& name) const {
    if (type == Type::Object)
        for (const auto& member : members)
            if (member.first == name) return member.second;
    return NullValue();
}

const JsonValue& JsonValue::operator[](size_t index) const {
    if (type == Type::Array && index < items.size()) return items[index];
    return NullValue();
}

bool ParseJson(const std::string& in, JsonValue* out) {
    *out = JsonValue();
    Parser parser(in);
    if (parser.ParseDocument(out)) return true;
    *out = JsonValue();
    return false;
}

std::string JsonQuote(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    snprintf(buf, sizeof(buf), "\\u%04x", c);
                    out += buf;
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    return out + "\"";
}

std::string JsonQuoteWide(const std::wstring& s) {
    std::string out = "\"";
    for (wchar_t c : s) {
        if (c >= 0x20 && c < 0x7F && c != L'"' && c != L'\\') {
            out.push_back(static_cast<char>(c));
        } else {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\u%04x", static_cast<unsigned>(c) & 0xFFFFu);
            out += buf;
        }
    }
    return out + "\"";
}

}  // namespace qvtest
