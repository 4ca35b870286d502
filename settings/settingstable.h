#ifndef ORVIX_SETTINGSTABLE_H
#define ORVIX_SETTINGSTABLE_H

#include "settingkey.h"

#include <QLoggingCategory>
#include <QString>
#include <QVariantMap>
#include <QVector>

#include <initializer_list>
#include <type_traits>

/**
 * A component's settings table: every key of its INI group, each declared once with the field of Options it fills.
 * Reading the group fills the options in one call; sample.ini and the README's key table are checked against keys().
 */
template <typename Options> class SettingsTable
{
public:
    /** The rows in the order the component's sample.ini documents them. */
    SettingsTable(std::initializer_list<Setting<Options>> rows) { append(rows); }

    /** A table whose first rows are those of first, the table of a part that Options derives from. */
    template <typename Base>
    SettingsTable(const SettingsTable<Base> &first, std::initializer_list<Setting<Options>> rest)
        : m_keys(first.m_keys)
    {
        static_assert(std::is_base_of<Base, Options>::value, "the first rows fill a base of Options");
        for (const auto &store : first.m_stores)
            m_stores.append([store](Options &options, const QVariant &value) { store(options, value); });
        append(rest);
    }

    /** Every key, in the table's order. */
    const QVector<SettingKey> &keys() const { return m_keys; }

    /**
     * Reads group, the component's map of its INI group, into *options, key by key in the table's order (see
     * SettingKey::read()); warnings go to category. False at the first strict or required key that fails, with its
     * sentence in *error; a table without such keys always reads, and error may then be null.
     */
    bool read(
        const QVariantMap &group, const QLoggingCategory &category, Options *options, QString *error = nullptr) const
    {
        QVariant value;
        for (int row = 0; row < m_keys.size(); ++row) {
            if (!m_keys.at(row).read(group, category, &value, error))
                return false;
            m_stores.at(row)(*options, value);
        }
        return true;
    }

private:
    template <typename> friend class SettingsTable;

    void append(std::initializer_list<Setting<Options>> rows)
    {
        for (const Setting<Options> &row : rows) {
            m_keys.append(row.key);
            m_stores.append(row.store);
        }
    }

    QVector<SettingKey> m_keys;
    QVector<std::function<void(Options &, const QVariant &)>> m_stores;
};

#endif
