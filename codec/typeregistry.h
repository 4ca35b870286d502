#ifndef ORVIX_TYPEREGISTRY_H
#define ORVIX_TYPEREGISTRY_H

// The table of the dataset types the codec knows: each with its name, its writer and its reader. Private to the
// codec.

#include "jsondom.h"
#include "jsonwriter.h"

#include <QByteArray>
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
    // The same by the name's bytes, which the parsed line has without a text made of them.
    QHash<QByteArray, TypeEntry> byNameBytes;

    template <typename Record> void add();

    /** The type a JSON string names, nullptr when none. */
    const TypeEntry *find(const QJsonValue &name) const
    {
        const auto it = byName.constFind(name.toString());
        return it == byName.constEnd() ? nullptr : &it.value();
    }
    const TypeEntry *find(const DomValue &name) const
    {
        const std::string_view bytes = name.utf8();
        const auto it = byNameBytes.constFind(QByteArray::fromRawData(bytes.data(), int(bytes.size())));
        return it == byNameBytes.constEnd() ? nullptr : &it.value();
    }
};

/** The table, built once on first use. */
const Registry &registry();

} // namespace CodecDetail

#endif
