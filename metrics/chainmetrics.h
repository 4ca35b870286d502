#ifndef ORVIX_CHAINMETRICS_H
#define ORVIX_CHAINMETRICS_H

#include <QDateTime>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QVariant>

#include <vector>

class ChainTap;
class IDatasource;
class IProcessor;

/**
 * Counts what passes the processor chain: datasets by type into it and out of it, per processor what it received,
 * emitted and dropped, per machine its datasets, its last MM state and when its last dataset came. It listens to the
 * chain's own signals and lives on the event loop thread; counting is a few integer updates in entries made once.
 */
class ChainMetrics : public QObject
{
    Q_OBJECT
public:
    /** Datasets of one registered type. */
    struct TypeCount
    {
        int type;
        quint64 count;
    };

    struct Machine
    {
        /** When its last dataset entered the chain, in milliseconds of clock(). */
        qint64 lastDataset = 0;
        quint64 datasets = 0;
        /** Its last StateV1 code that left the chain, 0 before the first. */
        qint32 state = 0;
    };

    struct Processor
    {
        QString name;
        quint64 received = 0;
        quint64 emitted = 0;
        quint64 dropped = 0;
        /** emitted when the dataset now being processed arrived. */
        quint64 emittedBefore = 0;
    };

    explicit ChainMetrics(QObject *parent = nullptr);
    ~ChainMetrics() override;

    /**
     * Listens to every processor's output ahead of the next stage. Called before the pipeline is wired, so that it
     * sees each dataset before the next processor does.
     */
    void attachProcessors(const QList<IProcessor *> &processors);

    /** Listens to the datasources and to each processor's output behind the next stage; after the wiring. */
    void attachPipeline(const QList<IDatasource *> &datasources);

    const QHash<QString, Machine> &machines() const { return m_machines; }
    const std::vector<TypeCount> &input() const { return m_input; }
    const std::vector<TypeCount> &output() const { return m_output; }
    const std::vector<Processor> &processors() const { return m_processors; }

    /** The monotonic clock of Machine::lastDataset. */
    const QElapsedTimer &clock() const { return m_clock; }

public slots:
    /** A dataset from a datasource, after the first processor has handled it. */
    void received(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    friend class ChainTap;
    void emittedBy(int processor);
    void handledBy(int processor);
    void delivered(const QString &machine, const QVariant &data);
    static void count(std::vector<TypeCount> &counts, int type);

    QElapsedTimer m_clock;
    QHash<QString, Machine> m_machines;
    std::vector<TypeCount> m_input;
    std::vector<TypeCount> m_output;
    std::vector<Processor> m_processors;
    QList<ChainTap *> m_taps;
    QList<QObject *> m_processorObjects;
    int m_stateType;
};

#endif
