#include "datasettape.h"

#include "benchsource.h"
#include "machinefleet.h"
#include "opcuatommmapper.h"

DatasetTape::DatasetTape(int machines, int updates, const QString &source)
{
    MachineFleet fleet(machines, source);
    OpcUaToMMMapper mapper;
    BenchSource feed;
    feed.connectTo(&mapper);
    QObject::connect(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), this,
        SLOT(processData(QDateTime, QString, QString, QVariant)));

    m_first.resize(machines);
    m_updates.resize(machines);
    m_steady.resize(machines);
    for (int machine = 0; machine < machines; ++machine) {
        m_recording = &m_first[machine];
        fleet.send(feed, machine, false);
        m_updates[machine].resize(updates);
        m_steady[machine].resize(updates);
    }
    for (int update = 0; update < updates; ++update) {
        for (int machine = 0; machine < machines; ++machine) {
            m_recording = &m_updates[machine][update];
            fleet.send(feed, machine, true);
        }
    }
    for (int update = 0; update < updates; ++update) {
        for (int machine = 0; machine < machines; ++machine) {
            m_recording = &m_steady[machine][update];
            fleet.send(feed, machine, false);
        }
    }
    m_recording = nullptr;
}

double DatasetTape::datasetsPerUpdate() const
{
    qint64 datasets = 0;
    qint64 updates = 0;
    for (const QVector<Datasets> &machine : m_updates) {
        for (const Datasets &update : machine) {
            datasets += update.size();
            ++updates;
        }
    }
    return updates == 0 ? 0.0 : double(datasets) / double(updates);
}

void DatasetTape::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    if (m_recording)
        m_recording->append({ timestamp, machine, source, data });
}
