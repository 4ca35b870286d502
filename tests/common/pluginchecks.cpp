#include "pluginchecks.h"

#include "idatasource.h"
#include "itarget.h"
#include "testsupport.h"

#include <QJsonObject>
#include <QMetaObject>
#include <QPluginLoader>
#include <QSettings>
#include <QtTest>

#include <cstdio>

namespace PluginChecks {

namespace {

template <typename Interface>
void checkLibrary(const QString &file, const QString &type, const QString &name, const QStringList &signalSignatures,
    const QStringList &slotSignatures)
{
    QPluginLoader loader(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/lib%1.so").arg(file));
    QCOMPARE(loader.metaData().value("MetaData").toObject().value("TYPE").toString(), type);
    Interface *plugin = qobject_cast<Interface *>(loader.instance());
    QVERIFY2(plugin, qPrintable(loader.errorString()));
    QCOMPARE(plugin->name(), name);
    const QMetaObject *meta = loader.instance()->metaObject();
    for (const QString &signature : signalSignatures)
        QVERIFY2(meta->indexOfSignal(signature.toLatin1().constData()) >= 0, qPrintable(signature));
    for (const QString &signature : slotSignatures)
        QVERIFY2(meta->indexOfSlot(signature.toLatin1().constData()) >= 0, qPrintable(signature));
}

QString pluginFile(const QString &folder, const char *name)
{
    return QStringLiteral(ORVIX_SOURCE_DIR "/plugins/%1/%2").arg(folder, QLatin1String(name));
}

} // namespace

void checkDatasourceLibrary(const QString &file, const QString &name, const QStringList &moreSlots)
{
    checkLibrary<IDatasource>(file, QStringLiteral("DATASOURCE"), name,
        { QStringLiteral("dataReceived(QDateTime,QString,QString,QVariant)") }, moreSlots);
}

void checkTargetLibrary(const QString &file, const QString &name)
{
    checkLibrary<ITarget>(file, QStringLiteral("TARGET"), name, QStringList(),
        { QStringLiteral("processData(QDateTime,QString,QString,QVariant)") });
}

void checkSampleIni(const QString &folder, const QString &group, const QVector<SettingKey> &keys)
{
    const QString path = pluginFile(folder, "sample.ini");
    QStringList expected { QStringLiteral("[%1]").arg(group) };
    for (const SettingKey &key : keys) {
        expected << QStringLiteral("; %1").arg(QString::fromUtf8(key.meaning))
                 << QStringLiteral("%1=%2").arg(QString::fromLatin1(key.name), QString::fromUtf8(key.defaultValue));
        QVariant parsed;
        QVERIFY2(!*key.defaultValue || key.parse(QString::fromUtf8(key.defaultValue), &parsed), key.name);
    }
    QCOMPARE(QString::fromUtf8(TestSupport::readFile(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts), expected);

    QSettings ini(path, QSettings::IniFormat);
    ini.beginGroup(group);
    for (const SettingKey &key : keys)
        QCOMPARE(ini.value(QString::fromLatin1(key.name)).toString(), QString::fromUtf8(key.defaultValue));
}

QString keyTable(const QVector<SettingKey> &keys)
{
    QString table = QStringLiteral("| Key | Type | Default | Meaning |\n|---|---|---|---|\n");
    for (const SettingKey &key : keys) {
        const QString value = QString::fromUtf8(key.defaultValue);
        table += QStringLiteral("| `%1` | %2 | %3 | %4 |\n")
                     .arg(QString::fromLatin1(key.name), key.typeText(),
                         value.isEmpty() ? QStringLiteral("empty") : QLatin1Char('`') + value + QLatin1Char('`'),
                         QString::fromUtf8(key.meaning));
    }
    return table;
}

void checkReadmeKeyTable(const QString &folder, const QVector<SettingKey> &keys)
{
    const QString table = keyTable(keys);
    const QString readme = QString::fromUtf8(TestSupport::readFile(pluginFile(folder, "README.md")));
    if (!readme.contains(QLatin1Char('\n') + table + QLatin1Char('\n'))) {
        // Whole, where QtTest would cut a long table short: ready to paste into the README.
        std::fputs(qPrintable(table), stderr);
        QFAIL("README.md lacks the key table printed above, between empty lines");
    }
}

void checkReadmeQuotesSampleIni(const QString &folder)
{
    const QByteArray sample = TestSupport::readFile(pluginFile(folder, "sample.ini"));
    QVERIFY(!sample.isEmpty());
    QVERIFY(TestSupport::readFile(pluginFile(folder, "README.md")).contains("```ini\n" + sample + "```\n"));
}

} // namespace PluginChecks
