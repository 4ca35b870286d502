#ifndef ORVIX_TYPEREGISTRY_H
#define ORVIX_TYPEREGISTRY_H

// The table of the dataset types the codec knows: each with its name, its writer and its reader. Private to the
// codec.

#include "jsondom.h"
#include "jsonwriter.h"

#include <QHash>
#include <QJsonObject>
#include <QString>
#include <QVariant>

namespace CodecDetail {

/** One known type: its name in the JSON form, and how its value is written and read. */
struct TypeEntry
{
    const char *name = nullptr;
    void (*write)(JsonWriter &, const QVariant &) = nullptr;
    bool (*read)(const QJsonObject &, QVariant *, QString *) = nullptr;
    /** The same as read, from the strict reader's parsed line. */
    bool (*readParsed)(const DomObject &, QVariant *, QString *) = nullptr;

    bool readFrom(const QJsonObject &object, QVariant *data, QString *error) const { return read(object, data, error); }
    bool readFrom(const DomObject &object, QVariant *data, QString *error) const
    {
        return readParsed(object, data, error);
    }
};

/** The known types by meta-type id and by name. */
struct Registry
{
    QHash<int, TypeEntry> byId;
    QHash<QString, TypeEntry> byName;

    template <typename Record> void add();
};

/** The table, built once on first use. */
const Registry &registry();

} // namespace CodecDetail

#endif
