#ifndef ORVIX_LIMIT_H
#define ORVIX_LIMIT_H

#include "iprocessor.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

#include <memory>
#include <vector>

class QTimer;

/**
 * Keeps repeated data away from the targets: drops a dataset equal to the last one of its type for the same machine
 * (a repeated StateV1 passes once per keep-alive time), sends operating data at most once per wait time, and breaks
 * condition and maintenance lists into entries of which only the changed ones leave, at most once per wait time.
 */
class Limit : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    /** A source of the current time, in milliseconds since the epoch. */
    using Clock = qint64 (*)();

    explicit Limit(QObject *parent = nullptr);
    ~Limit() override;

    /**
     * Reads waitTime and keepAliveTime (milliseconds) of the group limit, 0 when missing or not a number, and starts
     * the operating data timer unless the wait time is 0.
     */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "Limit". */
    QString name() const override;
    /** 1000: after the validator, before the dataset log. */
    unsigned int orderNumber() const override;

    /** The wait time read by init, in milliseconds. */
    quint32 waitTime() const { return m_waitTime; }
    /** The keep-alive time of repeated states read by init, in milliseconds. */
    quint32 keepAliveTime() const { return m_keepAliveTime; }
    /** Replaces the clock, by default the system's wall clock; for tests that need exact times. */
    void setClock(Clock clock) { m_clock = clock; }

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    /** Drops repeats, takes list and operating data into the per-machine tables and passes everything else on. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);
    /** Sends every machine's pending condition definitions whose last sending is a wait time ago. */
    void doConditionDefinitions();
    /** Sends every machine's pending condition values whose last sending is a wait time ago. */
    void doConditionValues();
    /** Sends every machine's pending maintenance definitions whose last sending is a wait time ago. */
    void doMaintenanceDefinitions();
    /** Sends every machine's pending maintenance values whose last sending is a wait time ago. */
    void doMaintenanceValues();
    /** Sends the pending operating data of every machine; run by the timer every wait time. */
    void doOperatingData();

private:
    struct Machine;
    struct Schedule;
    struct ListKind;
    struct FlushTime;
    template <typename Item> struct Table;
    using Equals = bool (*)(const QVariant &a, const QVariant &b);
    using Take = void (Limit::*)(Machine &machine, const QVariant &data);
    /** What the limiter knows of one registered type: how to compare two values and, if at all, how to take one. */
    struct Handler
    {
        Equals equals;
        Take take;
    };

    Machine &machineFor(const QString &name);
    bool equal(const Handler *handler, const QVariant &a, const QVariant &b) const;
    template <typename List, typename Item, Table<Item> Machine::*table, int kind>
    void takeList(Machine &machine, const QVariant &data);
    template <typename List, typename Item, Table<Item> Machine::*table, int kind>
    void takeItem(Machine &machine, const QVariant &data);
    void takeOperatingData(Machine &machine, const QVariant &data);
    template <typename List, typename Item> void flush(Table<Item> Machine::*table, ListKind &kind, Machine *changed);
    template <typename List, typename Item>
    void visitAll(Table<Item> Machine::*table, ListKind &kind, FlushTime &time, int from);
    template <typename List, typename Item> void send(Machine &machine, Table<Item> &entries, FlushTime &time);
    template <typename Item> void catchUp(Table<Item> Machine::*table, ListKind &kind);
    template <typename Item> void requeue(Table<Item> Machine::*table, ListKind &kind);
    void resolve(Schedule &schedule, ListKind &kind);
    void enqueue(ListKind &kind, Machine *machine, Schedule &schedule);
    qint64 dueTime(const Schedule &schedule) const;

    quint32 m_waitTime = 0;
    quint32 m_keepAliveTime = 0;
    Clock m_clock;
    QTimer *m_timer;
    int m_stateType;
    int m_operatingDataType;
    // Keyed by the registered type id; types without an entry are compared by QVariant and passed on.
    QHash<int, Handler> m_handlers;
    // Owns the machines; the same machines sorted by name give the order in which flushes and the timer send.
    QHash<QString, Machine *> m_machines;
    QVector<Machine *> m_sortedMachines;
    // The machine of the last dataset.
    Machine *m_recent = nullptr;
    // One per list kind: condition definitions, condition values, maintenance definitions, maintenance values.
    std::unique_ptr<ListKind[]> m_kinds;
    // Scratch space of send(), kept to spare an allocation per list sent.
    std::vector<int> m_sendOrder;
};

#endif
