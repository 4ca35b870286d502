#ifndef ORVIX_TAPEREPLAY_H
#define ORVIX_TAPEREPLAY_H

#include <QString>
#include <QVector>

class BenchSource;
class DatasetTape;

/**
 * Sends a tape's updates for any number of machines, one machine after the other: machine i plays the tape's
 * machine i modulo the tape's size under a name of its own, so that a processor keeps a table entry per machine.
 */
class TapeReplay
{
public:
    TapeReplay(const DatasetTape &tape, int machines, bool steady);

    int machines() const { return m_names.size(); }

    /** Sends every machine's first update and one round of updates: every machine has been seen and has moved. */
    void warmUp(BenchSource &source);

    /** Sends the next machine's next update. */
    void sendNext(BenchSource &source);

private:
    const DatasetTape &m_tape;
    QVector<QString> m_names;
    bool m_steady;
    int m_next = 0;
    int m_round = 0;
};

#endif
