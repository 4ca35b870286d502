#ifndef ORVIX_SIMULATOR_H
#define ORVIX_SIMULATOR_H

#include "idatasource.h"
#include "settingstable.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QVector>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class SimulatedMachine;
struct ConditionDefinitionsV2;
struct WwIdentification;
struct WwState;

/**
 * A datasource that simulates woodworking machines through a working day: each sends its nameplate first and then
 * its state record every interval, with alarm and warning events along the way. A seed makes a run repeatable.
 *
 * Before anything else each machine sends the condition definitions of its nameplate, flags and values in one list,
 * the same the mapping derives from them later. Limit lets a second list of a machine through only when no list of
 * definitions of any machine went out within its wait time, and holds it otherwise until a later new definition,
 * which steady machines never send; a machine's first list always goes out. So the definitions reach the targets
 * before any value, and the mapping's own lists, being equal, change nothing.
 */
class Simulator : public QObject, public IDatasource
{
    Q_OBJECT
    Q_INTERFACES(IDatasource)
public:
    /** What the group simulator says. */
    struct Options
    {
        int machines = 0;
        QString prefix;
        int interval = 0;
        /** None draws a new seed. */
        std::optional<quint64> seed;
    };

    /** Every key of the group simulator, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit Simulator(QObject *parent = nullptr);
    ~Simulator() override;

    /** Creates the machines from the group simulator and starts the interval timer. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "simulator". */
    QString name() const override;

    /** Replaces the clock that stamps the datasets (by default the current time in UTC), so tests can repeat a run. */
    void setClock(std::function<QDateTime()> clock);
    /** The seed of the run: the configured one, or the one drawn by init when none is configured. */
    quint64 seed() const { return m_seed; }

    /** The definitions of the conditions that the mapping makes of a machine's nameplate and state record. */
    static ConditionDefinitionsV2 definitionsOf(
        const QString &machine, const QDateTime &timestamp, const WwIdentification &nameplate, const WwState &state);

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    /** One round: every machine moves on by the interval and sends its datasets. The timer calls it every interval. */
    void tick();

private:
    std::vector<std::unique_ptr<SimulatedMachine>> m_machines;
    std::function<QDateTime()> m_clock;
    QTimer m_timer;
    int m_interval = 0;
    quint64 m_seed = 0;
};

#endif
