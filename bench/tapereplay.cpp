#include "tapereplay.h"

#include "benchsource.h"
#include "datasettape.h"

TapeReplay::TapeReplay(const DatasetTape &tape, int machines, bool steady)
    : m_tape(tape)
    , m_steady(steady)
{
    m_names.reserve(machines);
    for (int i = 0; i < machines; ++i)
        m_names.append(QStringLiteral("edgebander-%1").arg(i, 5, 10, QLatin1Char('0')));
}

void TapeReplay::warmUp(BenchSource &source)
{
    for (int machine = 0; machine < m_names.size(); ++machine) {
        for (const DatasetTape::Dataset &dataset : m_tape.first(machine % m_tape.machines()))
            emit source.dataReceived(dataset.timestamp, m_names.at(machine), dataset.source, dataset.data);
    }
    for (int machine = 0; machine < m_names.size(); ++machine)
        sendNext(source);
}

void TapeReplay::sendNext(BenchSource &source)
{
    const int slot = m_next % m_tape.machines();
    const int update = m_round % m_tape.updates();
    const DatasetTape::Datasets &datasets = m_steady ? m_tape.steady(slot, update) : m_tape.update(slot, update);
    const QString &machine = m_names.at(m_next);
    for (const DatasetTape::Dataset &dataset : datasets)
        emit source.dataReceived(dataset.timestamp, machine, dataset.source, dataset.data);
    if (++m_next == m_names.size()) {
        m_next = 0;
        ++m_round;
    }
}
