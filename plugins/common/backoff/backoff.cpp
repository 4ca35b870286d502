#include "backoff.h"

#include <QRandomGenerator>
#include <QtGlobal>

Backoff::Backoff(int first, int longest)
{
    setRange(first, longest);
}

void Backoff::setRange(int first, int longest)
{
    m_first = qMax(1, first);
    m_longest = qMax(m_first, longest);
}

int Backoff::next()
{
    ++m_failures;
    return jittered(base(m_failures, m_first, m_longest));
}

int Backoff::base(int failures, int first, int longest)
{
    qint64 pause = first;
    for (int i = 1; i < failures && pause < longest; ++i)
        pause *= 2;
    return int(qMin<qint64>(pause, longest));
}

int Backoff::jittered(int base)
{
    // Only ever shorter: the longest pause stays the longest an operator waits.
    const int quarter = base / 4;
    return quarter > 0 ? base - int(QRandomGenerator::global()->bounded(quarter + 1)) : base;
}
