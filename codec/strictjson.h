#ifndef ORVIX_STRICTJSON_H
#define ORVIX_STRICTJSON_H

#include <QByteArray>
#include <QString>

/**
 * The gate every line of JSON passes before it is read: RFC 8259 exactly (no invalid escapes, lone surrogates,
 * invalid UTF-8 or raw control characters), no key twice in one object, nesting at most MaxDepth deep. What it lets
 * through, Qt's JSON reader reads without surprises: Qt's parser keeps the memory of a replaced duplicate key, and
 * takes some broken text for other text.
 */
class StrictJson
{
public:
    static constexpr int MaxDepth = 64;

    /** Whether text is one strict JSON value; otherwise false with a sentence saying why. */
    static bool check(const QByteArray &text, QString *error);
};

#endif
