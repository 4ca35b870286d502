#ifndef ORVIX_JSONERRORLOCATOR_H
#define ORVIX_JSONERRORLOCATOR_H

#include <QByteArray>
#include <QString>

/**
 * Finds where a text that the strict JSON check refused stops being JSON, so that the refusal can name the byte:
 * a reader of a broken file or message wants the place, which the fast parser does not tell. Used only on refused
 * text; it reads, it builds nothing.
 */
class JsonErrorLocator
{
public:
    /** Sets offset and reason for the first byte at which text is not RFC 8259 JSON; false if none is found. */
    static bool locate(const QByteArray &text, qint64 *offset, QString *reason);
};

#endif
