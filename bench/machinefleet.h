#ifndef ORVIX_MACHINEFLEET_H
#define ORVIX_MACHINEFLEET_H

#include "wwstate.h"

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <QVector>

class BenchSource;

/**
 * The machines of a shop floor as a datasource sees them: one WwState per machine with every flag and value present,
 * polled once a second. A changing update moves the few counters a running machine moves in a second (and, every
 * fifth update, those of a finished piece); a steady update sends the same record again with a new time stamp.
 */
class MachineFleet
{
public:
    /** Creates the machines edgebander-00000, edgebander-00001, ... reported by the given source. */
    MachineFleet(int machines, const QString &source);

    int size() const { return m_machines.size(); }
    const QString &source() const { return m_source; }
    const QString &machineName(int index) const { return m_machines.at(index).name; }

    /** Emits the next update of one machine through the source; changed says whether its values move. */
    void send(BenchSource &source, int index, bool changed);

    /** The next update of one machine as the datasource would wrap it, with its time stamp. */
    QVariant next(int index, bool changed, QDateTime &timestamp);

    /** The number of flags and values that changed in the changing updates so far, per update. */
    double changedItemsPerUpdate() const;

private:
    struct Machine
    {
        QString name;
        WwState state;
        qint64 clock = 0;
        quint64 updates = 0;
    };

    static WwState initialState(int index);
    int advance(WwState &state, quint64 update);

    QString m_source;
    QVector<Machine> m_machines;
    quint64 m_changingUpdates = 0;
    quint64 m_changedItems = 0;
};

#endif
