#ifndef ORVIX_SIMULATEDMACHINE_H
#define ORVIX_SIMULATEDMACHINE_H

#include "workingday.h"
#include "wwidentification.h"
#include "wwstate.h"

#include <QString>
#include <QVector>

#include <random>

/** One simulated machine: where it is in its day, its counters and its open messages. */
class SimulatedMachine
{
public:
    SimulatedMachine(const QString &machineName, int index, quint64 seed);

    /** Moves the machine on by the given milliseconds; events raised or withdrawn on the way are appended. */
    void advance(quint64 milliseconds, QVector<WwBaseEventType> *events);
    WwState state() const;

    QString name;
    WwIdentification identification;
    bool identificationDue = true;
    bool started = false;

private:
    // Whole counters in milliseconds, pieces and runs; the length in millimetres is kept apart with its fraction.
    struct Counters
    {
        quint64 machineOff = 0;
        quint64 standby = 0;
        quint64 ready = 0;
        quint64 working = 0;
        quint64 error = 0;
        quint64 machineOn = 0;
        quint64 powerPresent = 0;
        quint64 production = 0;
        quint64 productionWithoutWorkpiece = 0;
        quint64 productionWaitWorkpiece = 0;
        quint64 runsGood = 0;
        quint64 runsTotal = 0;
        quint64 runsAborted = 0;
        quint64 piecesIn = 0;
        quint64 piecesOut = 0;
        double length = 0;
    };

    void enter(WorkingDay::Phase next, QVector<WwBaseEventType> *events);
    WorkingDay::Phase draw(WorkingDay::Phase from);
    void work(quint64 milliseconds);
    void count(quint64 milliseconds);
    void abortPiece();
    bool machineOn() const;

    const WorkingDay::Kind &m_kind;
    std::mt19937_64 m_random;
    WorkingDay::Phase m_phase = WorkingDay::Phase::Off;
    int m_ticksLeft = 0;
    WorkingDay::Phase m_interrupted = WorkingDay::Phase::Off;
    int m_interruptedTicks = 0;
    bool m_workpiece = false;
    double m_pieceLeft = 0;
    double m_feedSpeed = 0;
    const WorkingDay::Message *m_alarm = nullptr;
    const WorkingDay::Message *m_warning = nullptr;
    int m_warningTicks = 0;
    Counters m_counters;
    Counters m_start;
};

#endif
