#ifndef ORVIX_DATASETCODEC_H
#define ORVIX_DATASETCODEC_H

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <QVariant>

/**
 * The JSON form of datasets, shared by the service, its plugins, its tests and users' scripts: one dataset is one
 * JSON object {"timestamp", "machine", "source", "type", "data"} and, as a line, one line of text. Every MM dataset
 * type and every woodworking value type round-trips without loss; codec/README.md documents the form.
 * All functions are reentrant and may be called from any thread.
 */
class DatasetCodec
{
public:
    /** One dataset: the four values that travel through the pipeline. */
    struct Dataset
    {
        QDateTime timestamp;
        QString machine;
        QString source;
        QVariant data;
    };

    /**
     * Returns the dataset as a JSON object. A value of a type the codec does not know is written with its type name
     * and the value's own JSON conversion; encoding never fails.
     */
    static QJsonObject encode(
        const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

    /**
     * Returns the dataset as one line of compact JSON without a trailing line feed; the fast path for writers. A
     * dataset with a value that has no form that reads back the same (a date-time outside the years 1 to 9999) gives
     * an empty line, with error naming the field.
     */
    static QByteArray encodeLine(const QDateTime &timestamp, const QString &machine, const QString &source,
        const QVariant &data, QString *error = nullptr);

    /**
     * Reads a dataset from a JSON object. On failure returns false, leaves out unchanged and sets error (if given)
     * to a sentence naming the problem; a record is never half filled.
     */
    static bool decode(const QJsonObject &object, Dataset *out, QString *error = nullptr);

    /**
     * Reads a dataset from one line of JSON, as decode does, after the strict check of StrictJson; the caller adds
     * the line number to the error.
     */
    static bool decodeLine(const QByteArray &line, Dataset *out, QString *error = nullptr);

    /**
     * Reads a dataset from one line as decodeLine does and, when it succeeds, sets extra to the value of the line's
     * own key extraKey beside the dataset's keys (undefined when the line has none), for readers whose lines carry
     * more than the dataset, such as a pause.
     */
    static bool decodeLine(
        const QByteArray &line, Dataset *out, QString *error, QLatin1String extraKey, QJsonValue *extra);

    /** The names of the dataset types that the codec reads and writes field by field. */
    static QStringList typeNames();
};

#endif
