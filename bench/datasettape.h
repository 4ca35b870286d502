#ifndef ORVIX_DATASETTAPE_H
#define ORVIX_DATASETTAPE_H

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

/**
 * The datasets OpcUaToMMMapper makes of a fleet's updates, recorded once, so that a processor behind the mapper can
 * be fed its typical input without the mapper's own cost.
 */
class DatasetTape : public QObject
{
    Q_OBJECT
public:
    struct Dataset
    {
        QDateTime timestamp;
        QString machine;
        QString source;
        QVariant data;
    };
    using Datasets = QVector<Dataset>;

    /**
     * Records each machine's first update, with its condition definitions, then the given number of changing updates
     * and as many steady ones.
     */
    DatasetTape(int machines, int updates, const QString &source);

    int machines() const { return m_first.size(); }
    int updates() const { return m_updates.isEmpty() ? 0 : m_updates.first().size(); }

    /** What the mapper made of a machine's first update. */
    const Datasets &first(int machine) const { return m_first.at(machine); }
    /** What the mapper made of one of a machine's changing updates. */
    const Datasets &update(int machine, int update) const { return m_updates.at(machine).at(update); }
    /** What the mapper made of one of a machine's steady updates, which follow the changing ones. */
    const Datasets &steady(int machine, int update) const { return m_steady.at(machine).at(update); }

    /** The datasets per changing update, on average. */
    double datasetsPerUpdate() const;

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    QVector<Datasets> m_first;
    QVector<QVector<Datasets>> m_updates;
    QVector<QVector<Datasets>> m_steady;
    Datasets *m_recording = nullptr;
};

#endif
