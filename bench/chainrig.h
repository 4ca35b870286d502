#ifndef ORVIX_CHAINRIG_H
#define ORVIX_CHAINRIG_H

#include "benchsink.h"
#include "benchsource.h"

#include <QList>
#include <QTemporaryDir>
#include <QVariantMap>

#include <memory>

class Core;
class IProcessor;

/**
 * A processor chain as the service runs it: Core built on a configuration and log files in a temporary folder,
 * run() on an empty plugin folder, and a stand-in datasource and target connected in the plugins' places.
 */
class ChainRig
{
public:
    /**
     * The service's own six processors, or the given ones in their place (Core takes them over); settings are
     * further INI keys (group/key) for the configuration.
     */
    explicit ChainRig(const QList<IProcessor *> &replacement = {}, const QVariantMap &settings = {});
    ~ChainRig();

    ChainRig(const ChainRig &) = delete;
    ChainRig &operator=(const ChainRig &) = delete;

    BenchSource &source() { return m_source; }
    BenchSink &sink() { return m_sink; }
    Core &core() { return *m_core; }

    /** The processor at a place in the chain, as the QObject that Core connects. */
    QObject *processorObject(int place) const;

    /** The configuration the rig gives Core: the shipped limit settings, debug and info filtered, and the extra keys.
     */
    static void writeConfiguration(const QString &path, const QVariantMap &extra);

private:
    QTemporaryDir m_folder;
    std::unique_ptr<Core> m_core;
    BenchSource m_source;
    BenchSink m_sink;
};

#endif
