#ifndef ORVIX_CORE_H
#define ORVIX_CORE_H

#include <QList>
#include <QObject>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <memory>

class IDatasource;
class IProcessor;
class ITarget;
class QSettings;

/**
 * The one central object of the service: it installs logging, reads the configuration, builds the processor chain,
 * and in run() loads the plugins and wires datasources, processors and targets into one pipeline.
 */
class Core : public QObject
{
    Q_OBJECT
public:
    enum PluginType { DATASOURCE = 0, TARGET = 1 };
    Q_ENUM(PluginType)

    /**
     * The paths default to the installed service's; tests hand in their own so that they never touch the real ones.
     */
    explicit Core(bool service = false, QObject *parent = nullptr,
        const QString &configFile = QStringLiteral("/etc/orvix/orvix.ini"),
        const QString &logFileName = QStringLiteral("/var/log/orvix/orvix.log"),
        const QString &logOldCopy = QStringLiteral("/var/log/orvix/orvix.lastlog"));
    ~Core() override;

    /** The plugin directory: ORVIX_PLUGINPATH when set and not empty, else the one below the install prefix. */
    static QString pluginDirectory();

    /**
     * Replaces the built-in processor chain before run(), for a chain that differs from the service's own (one that
     * includes MmToOpcUaMapper, or none at all). Core takes ownership and sorts the list by order number.
     */
    void setProcessors(const QList<IProcessor *> &processors);

    /** Connects datasources, processors and targets for data; connecting again adds nothing. */
    void connectPipeline();

    const QList<IDatasource *> &datasources() const { return m_datasources; }
    const QList<ITarget *> &targets() const { return m_targets; }
    const QList<IProcessor *> &processors() const { return m_processors; }
    const QVariantMap &config() const { return m_config; }

signals:
    void finished();

public slots:
    void run();
    void writeConfig(QString key, QVariant value);

private:
    static QString filterRules(const QVariantMap &config);
    void warnAboutCommentInLogRules(const QString &configFile);
    void openConfig(const QString &configFile);
    void loadPlugins();
    void connectDatasources();
    void connectProcessors();
    void sortProcessors();
    void initProcessors();
    void initTargets();
    void initDatasources();
    void connectWriteConfig(QObject *object, const QString &name, bool signalOnly);

    bool m_service;
    bool m_running = false;
    QList<IDatasource *> m_datasources;
    QList<ITarget *> m_targets;
    QList<IProcessor *> m_processors;
    QVariantMap m_config;
    QVariantMap m_shared;
    std::unique_ptr<QSettings> m_settings;
    QStringList m_disabledPlugins;
};

#endif
