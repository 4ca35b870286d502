#include "chaintap.h"

#include "chainmetrics.h"

ChainTap::ChainTap(ChainMetrics *metrics, int processor)
    : QObject(metrics)
    , m_metrics(metrics)
    , m_processor(processor)
{
}

void ChainTap::emitted()
{
    m_metrics->emittedBy(m_processor);
}

void ChainTap::delivered(const QDateTime &, const QString &machine, const QString &, const QVariant &data)
{
    m_metrics->emittedBy(m_processor);
    m_metrics->delivered(machine, data);
}

void ChainTap::handled()
{
    m_metrics->handledBy(m_processor + 1);
}
