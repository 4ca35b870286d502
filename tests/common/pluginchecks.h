#ifndef ORVIX_PLUGINCHECKS_H
#define ORVIX_PLUGINCHECKS_H

#include "settingkey.h"

#include <QString>
#include <QStringList>
#include <QVector>

/**
 * The checks that the tests of every shipped plugin make: the built library against the plugin contract, and the
 * sample.ini and README.md of the plugin's folder against its table of keys. A failed check returns from the check
 * only, so each is the whole body of a test function.
 */
namespace PluginChecks {

/**
 * Checks the built lib<file>.so: TYPE "DATASOURCE", an IDatasource called name with the signal dataReceived, and the
 * slots of moreSlots (normalised signatures).
 */
void checkDatasourceLibrary(const QString &file, const QString &name, const QStringList &moreSlots = QStringList());

/** Checks the built lib<file>.so: TYPE "TARGET", an ITarget called name with the slot processData. */
void checkTargetLibrary(const QString &file, const QString &name);

/**
 * Checks that plugins/<folder>/sample.ini (folder as "datasources/replay") is the group followed by every key of the
 * table in its order, each as a comment line with its meaning and a line key=default, that QSettings reads each
 * default as written, and that each default fits its key (an empty one stands for "none").
 */
void checkSampleIni(const QString &folder, const QString &group, const QVector<SettingKey> &keys);

/** The README's table of the keys: name, type with bounds, default and meaning, a row per key in the table's order. */
QString keyTable(const QVector<SettingKey> &keys);

/** Checks that plugins/<folder>/README.md holds keyTable() of the table, so the two can't drift apart. */
void checkReadmeKeyTable(const QString &folder, const QVector<SettingKey> &keys);

/** Checks that plugins/<folder>/README.md quotes the folder's sample.ini whole, as an ini block. */
void checkReadmeQuotesSampleIni(const QString &folder);

} // namespace PluginChecks

#endif
