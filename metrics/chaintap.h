#ifndef ORVIX_CHAINTAP_H
#define ORVIX_CHAINTAP_H

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>

class ChainMetrics;

/** Listens to one processor's dataProcessed for ChainMetrics, which needs to know which processor sent. */
class ChainTap : public QObject
{
    Q_OBJECT
public:
    ChainTap(ChainMetrics *metrics, int processor);

public slots:
    /** Ahead of the next stage: the processor emitted a dataset. */
    void emitted();
    /** Ahead of the targets: the last processor emitted a dataset. */
    void delivered(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);
    /** Behind the next stage: the next processor has handled the dataset. */
    void handled();

private:
    ChainMetrics *m_metrics;
    int m_processor;
};

#endif
