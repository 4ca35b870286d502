#include "jsonwriter.h"

#include <cstdio>

namespace CodecDetail {

QString dateTimeText(const QDateTime &dateTime)
{
    // A local time would be written without its offset; the offset form names the same instant unambiguously.
    if (dateTime.timeSpec() == Qt::LocalTime)
        return dateTime.toOffsetFromUtc(dateTime.offsetFromUtc()).toString(Qt::ISODateWithMs);
    return dateTime.toString(Qt::ISODateWithMs);
}

/**
 * Appends the text of dateTimeText(), built directly from the numbers: writers stamp every dataset, and Qt's
 * general formatter costs more than the rest of a small dataset. Years outside 0 to 9999 take Qt's way.
 */
void appendDateTimeText(QByteArray &out, const QDateTime &dateTime)
{
    const int offset = dateTime.offsetFromUtc();
    const QDateTime shown = dateTime.timeSpec() == Qt::UTC ? dateTime : dateTime.toOffsetFromUtc(offset);
    const QDate date = shown.date();
    const QTime time = shown.time();
    if (date.year() < 0 || date.year() > 9999) {
        out += dateTimeText(dateTime).toLatin1();
        return;
    }
    char text[32];
    int length = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", date.year(), date.month(),
        date.day(), time.hour(), time.minute(), time.second(), time.msec());
    if (shown.timeSpec() == Qt::UTC) {
        text[length++] = 'Z';
    } else {
        const int minutes = qAbs(offset) / 60;
        length += std::snprintf(
            text + length, sizeof text - length, "%c%02d:%02d", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
    }
    out.append(text, length);
}

void writeVariant(JsonWriter &writer, const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        writer.boolean(value.toBool());
        break;
    case QMetaType::Int:
    case QMetaType::LongLong:
        writer.integer(value.toLongLong());
        break;
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        writer.unsignedInteger(value.toULongLong());
        break;
    case QMetaType::Double:
        writer.number(value.toDouble());
        break;
    case QMetaType::QString:
        writer.string(value.toString());
        break;
    default:
        writer.json(QJsonValue::fromVariant(value));
    }
}

} // namespace CodecDetail
