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

#include <string_view>
#include <unordered_map>

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
    // The same by the name's bytes, which the parsed line has without a text made of them; the names are the
    // record types' own, which live as long as the program.
    std::unordered_map<std::string_view, TypeEntry> byNameBytes;

    template <typename Record> void add();

    /** The type a JSON string names, nullptr when none. */
    const TypeEntry *find(const QJsonValue &name) const
    {
        const auto it = byName.constFind(name.toString());
        return it == byName.constEnd() ? nullptr : &it.value();
    }
    const TypeEntry *find(const DomValue &name) const
    {
        const auto it = byNameBytes.find(name.utf8());
        return it == byNameBytes.end() ? nullptr : &it->second;
    }
};

/** The table, built once on first use. */
const Registry &registry();

} // namespace CodecDetail

#endif
