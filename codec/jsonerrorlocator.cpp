#include "jsonerrorlocator.h"

#include "strictjson.h"

#include <cstring>

namespace {

class Scanner
{
public:
    explicit Scanner(const QByteArray &text)
        : m_begin(text.constData())
        , m_at(text.constData())
        , m_end(text.constData() + text.size())
    {
    }

    bool document()
    {
        skipSpace();
        if (!value())
            return false;
        skipSpace();
        return m_at == m_end || fail("text after the value");
    }

    qint64 offset() const { return qint64(m_at - m_begin); }
    QString reason() const { return m_reason; }

private:
    bool fail(const char *reason)
    {
        m_reason = QString::fromLatin1(reason);
        return false;
    }

    void skipSpace()
    {
        while (m_at < m_end && (*m_at == ' ' || *m_at == '\t' || *m_at == '\n' || *m_at == '\r'))
            ++m_at;
    }

    bool literal(const char *word)
    {
        const size_t length = std::strlen(word);
        if (size_t(m_end - m_at) < length || std::memcmp(m_at, word, length) != 0)
            return fail("an unknown word");
        m_at += length;
        return true;
    }

    bool digits()
    {
        if (m_at == m_end || *m_at < '0' || *m_at > '9')
            return fail("a digit expected");
        while (m_at < m_end && *m_at >= '0' && *m_at <= '9')
            ++m_at;
        return true;
    }

    bool number()
    {
        if (*m_at == '-')
            ++m_at;
        if (m_at < m_end && *m_at == '0')
            ++m_at;
        else if (!digits())
            return false;
        if (m_at < m_end && *m_at == '.') {
            ++m_at;
            if (!digits())
                return false;
        }
        if (m_at < m_end && (*m_at == 'e' || *m_at == 'E')) {
            ++m_at;
            if (m_at < m_end && (*m_at == '+' || *m_at == '-'))
                ++m_at;
            if (!digits())
                return false;
        }
        return true;
    }

    // Four hex digits after \u; false if they are not.
    bool hex4(unsigned *code)
    {
        if (m_end - m_at < 4)
            return fail("an incomplete \\u escape");
        *code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_at[i];
            const int digit = c >= '0' && c <= '9' ? c - '0'
                : c >= 'a' && c <= 'f'             ? c - 'a' + 10
                : c >= 'A' && c <= 'F'             ? c - 'A' + 10
                                                   : -1;
            if (digit < 0)
                return fail("an invalid \\u escape");
            *code = *code * 16 + unsigned(digit);
        }
        m_at += 4;
        return true;
    }

    bool escape()
    {
        const char *start = m_at;
        ++m_at; // the backslash
        if (m_at == m_end) {
            m_at = start;
            return fail("an unterminated string");
        }
        const char c = *m_at;
        if (c != '\0' && std::strchr("\"\\/bfnrt", c)) {
            ++m_at;
            return true;
        }
        if (c != 'u') {
            m_at = start;
            return fail("an invalid escape");
        }
        ++m_at;
        unsigned code = 0;
        if (!hex4(&code))
            return false;
        if (code >= 0xDC00 && code <= 0xDFFF) {
            m_at = start;
            return fail("a lone surrogate");
        }
        if (code >= 0xD800 && code <= 0xDBFF) {
            unsigned low = 0;
            if (m_end - m_at < 6 || m_at[0] != '\\' || m_at[1] != 'u') {
                m_at = start;
                return fail("a lone surrogate");
            }
            m_at += 2;
            if (!hex4(&low))
                return false;
            if (low < 0xDC00 || low > 0xDFFF) {
                m_at = start;
                return fail("a lone surrogate");
            }
        }
        return true;
    }

    // One UTF-8 sequence, shortest form, no surrogates, at most U+10FFFF.
    bool utf8()
    {
        const auto byte = [this](qint64 i) { return quint8(m_at[i]); };
        const quint8 first = byte(0);
        int length = 0;
        unsigned low = 0x80;
        unsigned high = 0xBF;
        if (first >= 0xC2 && first <= 0xDF) {
            length = 2;
        } else if (first >= 0xE0 && first <= 0xEF) {
            length = 3;
            if (first == 0xE0)
                low = 0xA0;
            if (first == 0xED)
                high = 0x9F;
        } else if (first >= 0xF0 && first <= 0xF4) {
            length = 4;
            if (first == 0xF0)
                low = 0x90;
            if (first == 0xF4)
                high = 0x8F;
        } else {
            return fail("invalid UTF-8");
        }
        if (m_end - m_at < length)
            return fail("invalid UTF-8");
        if (byte(1) < low || byte(1) > high)
            return fail("invalid UTF-8");
        for (int i = 2; i < length; ++i) {
            if (byte(i) < 0x80 || byte(i) > 0xBF)
                return fail("invalid UTF-8");
        }
        m_at += length;
        return true;
    }

    bool string()
    {
        ++m_at; // the opening quote
        while (m_at < m_end) {
            const quint8 c = quint8(*m_at);
            if (c == '"') {
                ++m_at;
                return true;
            }
            if (c == '\\') {
                if (!escape())
                    return false;
            } else if (c < 0x20) {
                return fail("a raw control character in a string");
            } else if (c < 0x80) {
                ++m_at;
            } else if (!utf8()) {
                return false;
            }
        }
        return fail("an unterminated string");
    }

    bool value(int depth = 0)
    {
        if (m_at == m_end)
            return fail("an unexpected end");
        // The strict check refuses deeper lines anyway; the bound keeps this scan's stack small whatever arrives.
        if (depth >= StrictJson::MaxDepth && (*m_at == '{' || *m_at == '['))
            return fail("nesting deeper than 64 levels");
        switch (*m_at) {
        case '{':
        case '[': {
            const char close = *m_at == '{' ? '}' : ']';
            const bool object = close == '}';
            ++m_at;
            skipSpace();
            if (m_at < m_end && *m_at == close) {
                ++m_at;
                return true;
            }
            for (;;) {
                if (object) {
                    if (m_at == m_end || *m_at != '"')
                        return fail(m_at == m_end ? "an unexpected end" : "a key expected");
                    if (!string())
                        return false;
                    skipSpace();
                    if (m_at == m_end || *m_at != ':')
                        return fail(m_at == m_end ? "an unexpected end" : "a colon expected");
                    ++m_at;
                    skipSpace();
                }
                if (!value(depth + 1))
                    return false;
                skipSpace();
                if (m_at == m_end)
                    return fail("an unexpected end");
                if (*m_at == close) {
                    ++m_at;
                    return true;
                }
                if (*m_at != ',')
                    return fail("a comma expected");
                ++m_at;
                skipSpace();
            }
        }
        case '"':
            return string();
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default:
            if (*m_at == '-' || (*m_at >= '0' && *m_at <= '9'))
                return number();
            if (quint8(*m_at) >= 0x80)
                return fail("a byte outside a string");
            return fail("an unexpected character");
        }
    }

    const char *m_begin;
    const char *m_at;
    const char *m_end;
    QString m_reason;
};

} // namespace

bool JsonErrorLocator::locate(const QByteArray &text, qint64 *offset, QString *reason)
{
    Scanner scanner(text);
    if (scanner.document())
        return false;
    *offset = scanner.offset();
    *reason = scanner.reason();
    return true;
}
