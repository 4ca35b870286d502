#include "core.h"

#include "datasetlog.h"
#include "idatasource.h"
#include "iprocessor.h"
#include "itarget.h"
#include "limit.h"
#include "logcategories.h"
#include "logcli.h"
#include "logfile.h"
#include "messagehandler.h"
#include "opcuatommmapper.h"
#include "unitoverwrite.h"
#include "validator.h"
#include "xmloverwrite.h"

#include <QDirIterator>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMetaEnum>
#include <QPluginLoader>
#include <QSettings>

#include <algorithm>

namespace {

const char *const DataSignal = SIGNAL(dataReceived(QDateTime, QString, QString, QVariant));
const char *const ProcessedSignal = SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant));
const char *const ProcessSlot = SLOT(processData(QDateTime, QString, QString, QVariant));
const char *const WriteConfigSignal = SIGNAL(writeConfig(QString, QVariant));
const char *const WriteConfigSlot = SLOT(writeConfig(QString, QVariant));
const char *const RequestSignal = SIGNAL(machineRequest(QString, QVariant));
const char *const RequestSlot = SLOT(machineRequest(QString, QVariant));

// The sinks outlive every Core: messages may still arrive while the process ends.
std::unique_ptr<LogCli> s_logCli;
std::unique_ptr<LogFile> s_logFile;

QVariantMap readGroup(QSettings &settings)
{
    QVariantMap map;
    // Groups first, so that a key of the same name replaces the group's map.
    const QStringList groups = settings.childGroups();
    for (const QString &group : groups) {
        settings.beginGroup(group);
        map.insert(group, readGroup(settings));
        settings.endGroup();
    }
    const QStringList keys = settings.childKeys();
    for (const QString &key : keys)
        map.insert(key, settings.value(key));
    return map;
}

template <typename Interface> QObject *objectOf(Interface *plugin)
{
    return dynamic_cast<QObject *>(plugin);
}

} // namespace

Core::Core(
    bool service, QObject *parent, const QString &configFile, const QString &logFileName, const QString &logOldCopy)
    : QObject(parent)
    , m_service(service)
{
    s_logCli = std::make_unique<LogCli>();
    s_logFile = std::make_unique<LogFile>(logFileName, logOldCopy);
    MessageHandler::install(s_logFile.get(), s_logCli.get());

    openConfig(configFile);

    QLoggingCategory::setFilterRules(filterRules(m_config));

    s_logFile->configure(m_config);
    warnAboutCommentInLogRules(configFile);

    qCInfo(lcCore) << QStringLiteral("starting %1 %2 %3")
                          .arg(QStringLiteral("orvix"), QStringLiteral("dev"),
                              m_service ? QStringLiteral("as service") : QStringLiteral("as normal process"));
    qCInfo(lcCore) << QStringLiteral("orvix connects woodworking machines to the systems above them");
    qCDebug(lcCore) << "read configfile:" << m_config;

    m_disabledPlugins
        = m_config.value(QStringLiteral("core")).toMap().value(QStringLiteral("disabledPlugins")).toStringList();

    m_processors.append(new Validator(this));
    m_processors.append(new UnitOverwrite(this));
    m_processors.append(new XmlOverwrite(this));
    m_processors.append(new DatasetLog(this));
    m_processors.append(new Limit(this));
    m_processors.append(new OpcUaToMMMapper());
    sortProcessors();
}

Core::~Core()
{
    if (lcCore().isInfoEnabled())
        qCInfo(lcCore).noquote() << "Shutting down";
    MessageHandler::restore();

    for (IDatasource *datasource : qAsConst(m_datasources))
        delete datasource;
    for (ITarget *target : qAsConst(m_targets))
        delete target;
    for (IProcessor *processor : qAsConst(m_processors))
        delete processor;
}

QString Core::pluginDirectory()
{
    const QByteArray fromEnvironment = qgetenv("ORVIX_PLUGINPATH");
    if (!fromEnvironment.isEmpty())
        return QString::fromUtf8(fromEnvironment);
    return QStringLiteral(ORVIX_DEFAULT_PLUGIN_DIR);
}

QString Core::filterRules(const QVariantMap &config)
{
    const QVariant value = config.value(QStringLiteral("core")).toMap().value(QStringLiteral("log"));
    if (!value.isValid())
        return QStringLiteral("*.debug=false");
    // Written with commas, the INI reader hands the rules over as a list: each element is a rule of its own.
    QString rules
        = value.userType() == QMetaType::QStringList ? value.toStringList().join(QLatin1Char('\n')) : value.toString();
    rules.replace(QLatin1Char(';'), QLatin1Char('\n'));
    return rules;
}

void Core::warnAboutCommentInLogRules(const QString &configFile)
{
    QFile file(configFile);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return;
    QString group;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            group = line.mid(1, line.indexOf(QLatin1Char(']')) - 1).trimmed();
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        const bool isLog = (group == QLatin1String("core") && line.left(equals).trimmed() == QLatin1String("log"))
            || (group.isEmpty() && line.left(equals).trimmed() == QLatin1String("core/log"));
        if (equals < 0 || !isLog)
            continue;
        // The INI reader takes an unquoted ";" for the start of a comment and silently drops the rules after it.
        const QString value = line.mid(equals + 1).trimmed();
        bool quoted = false;
        for (int i = 0; i < value.size(); ++i) {
            if (value.at(i) == QLatin1Char('"'))
                quoted = !quoted;
            else if (value.at(i) == QLatin1Char(';') && !quoted) {
                QString quotedForm = value;
                quotedForm.remove(QLatin1Char('"'));
                qCWarning(lcCore) << QStringLiteral("core/log holds an unquoted \";\", so the rules after it are "
                                                    "ignored: %1. Write it quoted: log=\"%2\"")
                                         .arg(value.mid(i + 1).trimmed(), quotedForm);
                return;
            }
        }
    }
}

void Core::openConfig(const QString &configFile)
{
    m_settings = std::make_unique<QSettings>(configFile, QSettings::IniFormat);
    m_settings->setIniCodec("UTF-8");
    qCInfo(lcCore) << QStringLiteral("Using configfile: %1").arg(m_settings->fileName());
    m_config = readGroup(*m_settings);
}

void Core::setProcessors(const QList<IProcessor *> &processors)
{
    for (IProcessor *processor : qAsConst(m_processors))
        delete processor;
    m_processors = processors;
    sortProcessors();
}

void Core::sortProcessors()
{
    // Stable, so that equal order numbers keep the order in which the processors were added.
    std::stable_sort(m_processors.begin(), m_processors.end(),
        [](IProcessor *a, IProcessor *b) { return a->orderNumber() < b->orderNumber(); });
}

void Core::connectPipeline()
{
    connectDatasources();
    connectProcessors();
}

void Core::run()
{
    // The pipeline is built once; a second call would load every plugin again into the same lists.
    if (m_running)
        return;
    m_running = true;

    loadPlugins();
    connectPipeline();
    initProcessors();
    initTargets();
    initDatasources();

    if (m_datasources.isEmpty())
        qCWarning(lcCore) << QStringLiteral("At least one datasource plugin has to be used.");
    if (m_targets.isEmpty())
        qCWarning(lcCore) << QStringLiteral("At least one target plugin has to be used.");
}

void Core::writeConfig(QString key, QVariant value)
{
    if (!m_settings)
        return;
    m_settings->setValue(key, value);
    m_settings->sync();
}

void Core::loadPlugins()
{
    const QString directory = pluginDirectory();
    qCDebug(lcCore) << QStringLiteral("Loading plugins from %1").arg(directory);

    const QMetaEnum pluginTypes = QMetaEnum::fromType<PluginType>();
    // The iterator's default filters skip hidden files and folders and broken symbolic links, so that a plugin
    // moved to plugins/.trash stays out of the service.
    QDirIterator it(directory, QDirIterator::Subdirectories);
    QHash<QObject *, QString> loadedRoots;
    while (it.hasNext()) {
        const QString path = it.next();
        if (it.fileInfo().isDir() || !path.endsWith(QLatin1String("so"), Qt::CaseInsensitive))
            continue;
        qCDebug(lcCore) << QStringLiteral("Trying to load plugin: %1").arg(path);

        QPluginLoader loader(path);
        const QString type
            = loader.metaData().value(QStringLiteral("MetaData")).toObject().value(QStringLiteral("TYPE")).toString();
        bool known = false;
        const int pluginType = pluginTypes.keyToValue(type.toUtf8().constData(), &known);
        if (!known) {
            qCWarning(lcCore) << QStringLiteral("PluginType \"%1\" not valid for %2").arg(type, path);
            continue;
        }

        QObject *root = loader.instance();
        if (!root) {
            qCWarning(lcCore) << QStringLiteral("Can't get instance of %1. Error: %2").arg(path, loader.errorString());
            continue;
        }
        qCDebug(lcCore) << QStringLiteral("Successfully loaded: %1").arg(path);
        // One library reached under two names (links to one file) hands out one root object: using it twice would
        // initialise it twice, send it every dataset twice and delete it twice.
        const auto earlier = loadedRoots.constFind(root);
        if (earlier != loadedRoots.constEnd()) {
            qCInfo(lcCore) << QStringLiteral("%1 is the same plugin as %2 and is used once").arg(path, *earlier);
            continue;
        }
        loadedRoots.insert(root, path);

        if (pluginType == DATASOURCE) {
            if (auto *datasource = qobject_cast<IDatasource *>(root))
                m_datasources.append(datasource);
            else
                qCWarning(lcCore) << QStringLiteral("%1 is no IDatasource and is not used").arg(path);
        } else if (auto *target = qobject_cast<ITarget *>(root)) {
            m_targets.append(target);
        } else {
            qCWarning(lcCore) << QStringLiteral("%1 is no ITarget and is not used").arg(path);
        }
    }
}

void Core::connectDatasources()
{
    for (IDatasource *datasource : qAsConst(m_datasources)) {
        QObject *source = objectOf(datasource);
        if (m_processors.isEmpty()) {
            for (ITarget *target : qAsConst(m_targets)) {
                QObject::connect(source, DataSignal, objectOf(target), ProcessSlot, Qt::UniqueConnection);
                qCDebug(lcCore) << QStringLiteral("Connect %1 to %2").arg(target->name(), datasource->name());
            }
        } else {
            IProcessor *first = m_processors.first();
            QObject::connect(source, DataSignal, objectOf(first), ProcessSlot, Qt::UniqueConnection);
            qCDebug(lcCore) << QStringLiteral("Connect %1 to %2").arg(datasource->name(), first->name());
        }
    }
}

void Core::connectProcessors()
{
    for (int i = 0; i < m_processors.size(); ++i) {
        IProcessor *processor = m_processors.at(i);
        QObject *sender = objectOf(processor);
        if (i == m_processors.size() - 1) {
            for (ITarget *target : qAsConst(m_targets)) {
                QObject::connect(sender, ProcessedSignal, objectOf(target), ProcessSlot, Qt::UniqueConnection);
                qCDebug(lcCore) << QStringLiteral("Connect %1 to %2").arg(processor->name(), target->name());
            }
        } else {
            IProcessor *next = m_processors.at(i + 1);
            QObject::connect(sender, ProcessedSignal, objectOf(next), ProcessSlot, Qt::UniqueConnection);
            qCDebug(lcCore) << QStringLiteral("Connect %1 to %2").arg(processor->name(), next->name());
        }
    }
}

void Core::connectWriteConfig(QObject *object, const QString &name, bool signalOnly)
{
    const QMetaObject *meta = object->metaObject();
    const QByteArray signature = QMetaObject::normalizedSignature("writeConfig(QString,QVariant)");
    const int index
        = signalOnly ? meta->indexOfSignal(signature.constData()) : meta->indexOfMethod(signature.constData());
    if (index < 0)
        return;
    QObject::connect(object, WriteConfigSignal, this, WriteConfigSlot);
    qCDebug(lcCore) << QStringLiteral("%1 provides writeConfig").arg(name);
}

void Core::initProcessors()
{
    for (IProcessor *processor : qAsConst(m_processors)) {
        connectWriteConfig(objectOf(processor), processor->name(), true);
        // A processor stays in the chain whatever its init says.
        processor->init(m_config, m_shared);
    }
}

void Core::initTargets()
{
    const QByteArray requestSignature = QMetaObject::normalizedSignature("machineRequest(QString,QVariant)");
    const QList<ITarget *> targets = m_targets;
    for (ITarget *target : targets) {
        const QString name = target->name();
        if (m_disabledPlugins.contains(name, Qt::CaseSensitive)) {
            qCInfo(lcCore) << QStringLiteral("Ignoring target %1, because it's disabled in the config.").arg(name);
            continue;
        }
        qCDebug(lcCore) << QStringLiteral("Initializing target %1").arg(name);
        QObject *object = objectOf(target);
        connectWriteConfig(object, name, false);
        if (object->metaObject()->indexOfMethod(requestSignature.constData()) >= 0) {
            for (IDatasource *datasource : qAsConst(m_datasources)) {
                QObject *receiver = objectOf(datasource);
                if (receiver->metaObject()->indexOfSlot(requestSignature.constData()) < 0)
                    continue;
                QObject::connect(object, RequestSignal, receiver, RequestSlot);
                qCDebug(lcCore) << QStringLiteral("Connect %1 machineRequest to %2").arg(name, datasource->name());
            }
        }
        if (!target->init(m_config, m_shared)) {
            qCWarning(lcCore) << QStringLiteral("Disabling target %1").arg(name);
            m_targets.removeOne(target);
            object->deleteLater();
        }
    }
}

void Core::initDatasources()
{
    const QList<IDatasource *> datasources = m_datasources;
    for (IDatasource *datasource : datasources) {
        const QString name = datasource->name();
        if (m_disabledPlugins.contains(name, Qt::CaseSensitive)) {
            qCInfo(lcCore) << QStringLiteral("Ignoring datasource %1, because it's disabled in the config.").arg(name);
            continue;
        }
        qCDebug(lcCore) << QStringLiteral("Initializing datasource %1").arg(name);
        QObject *object = objectOf(datasource);
        connectWriteConfig(object, name, true);
        if (!datasource->init(m_config, m_shared)) {
            qCWarning(lcCore) << QStringLiteral("Disabling datasource %1").arg(name);
            m_datasources.removeOne(datasource);
            object->deleteLater();
        }
    }
}
