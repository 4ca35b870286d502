#include "chainrig.h"

#include "benchlogging.h"
#include "core.h"
#include "iprocessor.h"

#include <QDir>
#include <QSettings>

ChainRig::ChainRig(const QList<IProcessor *> &replacement, const QVariantMap &settings)
{
    // Core prints its first lines before it reads its filter rules from the configuration.
    BenchLogging::filterDebugAndInfo();
    const QString configFile = m_folder.filePath(QStringLiteral("orvix.ini"));
    writeConfiguration(configFile, settings);
    m_core = std::make_unique<Core>(false, nullptr, configFile, m_folder.filePath(QStringLiteral("orvix.log")),
        m_folder.filePath(QStringLiteral("orvix.lastlog")));
    BenchLogging::silence();
    if (!replacement.isEmpty())
        m_core->setProcessors(replacement);

    // No plugins: the stand-ins are connected where run() would connect a datasource and a target.
    const QString plugins = m_folder.filePath(QStringLiteral("plugins"));
    QDir().mkpath(plugins);
    qputenv("ORVIX_PLUGINPATH", QFile::encodeName(plugins));
    m_core->run();
    m_source.connectTo(processorObject(0));
    m_sink.connectFrom(processorObject(m_core->processors().size() - 1));
}

ChainRig::~ChainRig() = default;

QObject *ChainRig::processorObject(int place) const
{
    return dynamic_cast<QObject *>(m_core->processors().at(place));
}

void ChainRig::writeConfiguration(const QString &path, const QVariantMap &extra)
{
    QSettings settings(path, QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    settings.setValue(QStringLiteral("core/log"), QStringLiteral("*.debug=false;*.info=false"));
    settings.setValue(QStringLiteral("limit/waitTime"), 10000);
    settings.setValue(QStringLiteral("limit/keepAliveTime"), 60000);
    for (auto setting = extra.cbegin(); setting != extra.cend(); ++setting)
        settings.setValue(setting.key(), setting.value());
    settings.sync();
}
