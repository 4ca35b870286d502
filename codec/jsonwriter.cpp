#include "jsonwriter.h"

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
bool appendDateTimeText(QByteArray &out, const QDateTime &dateTime)
{
    const int offset = dateTime.offsetFromUtc();
    // ISO 8601 offsets are whole minutes; an offset with seconds is written as the same instant in UTC.
    const QDateTime shown = offset % 60 != 0 ? dateTime.toUTC()
        : dateTime.timeSpec() == Qt::UTC     ? dateTime
                                             : dateTime.toOffsetFromUtc(offset);
    // Qt makes an offset of zero UTC.
    const bool utc = shown.timeSpec() == Qt::UTC;
    const QDate date = shown.date();
    const QTime time = shown.time();
    // Four digits are all that ISO 8601 without an agreed expansion, and so every reader, can take.
    if (date.year() < 1 || date.year() > 9999)
        return false;
    // The digits written straight, as "%04d-%02d-%02dT%02d:%02d:%02d.%03d" would give them, then Z or the offset.
    char text[32];
    int length = 0;
    const auto digits = [&text, &length](int value, int count) {
        for (int i = count - 1; i >= 0; --i, value /= 10)
            text[length + i] = char('0' + value % 10);
        length += count;
    };
    const auto put = [&text, &length](char c) { text[length++] = c; };
    digits(date.year(), 4);
    put('-');
    digits(date.month(), 2);
    put('-');
    digits(date.day(), 2);
    put('T');
    digits(time.hour(), 2);
    put(':');
    digits(time.minute(), 2);
    put(':');
    digits(time.second(), 2);
    put('.');
    digits(time.msec(), 3);
    if (utc) {
        put('Z');
    } else {
        const int minutes = qAbs(offset) / 60;
        put(offset < 0 ? '-' : '+');
        digits(minutes / 60, 2);
        put(':');
        digits(minutes % 60, 2);
    }
    out.append(text, length);
    return true;
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
    // Characters travel as their numbers, which read back as the same type; as text, "7" would come back as 7.
    case QMetaType::Char:
        writer.integer(qint64(*static_cast<const char *>(value.constData())));
        break;
    case QMetaType::SChar:
        writer.integer(qint64(*static_cast<const signed char *>(value.constData())));
        break;
    case QMetaType::UChar:
        writer.unsignedInteger(*static_cast<const uchar *>(value.constData()));
        break;
    case QMetaType::QChar:
        writer.unsignedInteger(static_cast<const QChar *>(value.constData())->unicode());
        break;
    case QMetaType::Float:
        writer.number(double(*static_cast<const float *>(value.constData())));
        break;
    // Bytes need not be UTF-8; base64 carries every one of them.
    case QMetaType::QByteArray:
        writer.latin1Bytes(value.toByteArray().toBase64());
        break;
    case QMetaType::QDateTime:
        writer.dateTime(value.toDateTime());
        break;
    default:
        writer.json(QJsonValue::fromVariant(value));
    }
}

} // namespace CodecDetail
