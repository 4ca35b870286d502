#ifndef ORVIX_OPCUATOMMMAPPER_H
#define ORVIX_OPCUATOMMMAPPER_H

#include "iprocessor.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>

#include <array>
#include <bitset>

struct WwBaseEventType;
struct WwIdentification;
struct WwState;

/** Turns a machine's OPC UA woodworking data into MM datasets; passes every other dataset on. */
class OpcUaToMMMapper : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit OpcUaToMMMapper(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    /** The number of flags and values of a machine state record, each of them a condition. */
    static constexpr int StateItemCount = 61;
    /** The number of nameplate fields that become conditions. */
    static constexpr int IdentificationFieldCount = 18;

    /** The condition ids of one machine as one source reports it, and which of them have been defined already. */
    struct MachineConditions
    {
        std::array<QString, StateItemCount> stateIds;
        std::bitset<StateItemCount> stateDefined;
        bool stateIdsBuilt = false;
        std::array<QString, IdentificationFieldCount> identificationIds;
        std::bitset<IdentificationFieldCount> identificationDefined;
        bool identificationIdsBuilt = false;
    };

    MachineConditions &machineConditions(const QString &source, const QString &machine);
    void mapState(const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state);
    void mapOperatingData(
        const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state);
    void mapStateConditions(
        const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state);
    void mapIdentification(const QDateTime &timestamp, const QString &machine, const QString &source,
        const WwIdentification &identification);
    void mapEvent(
        const QDateTime &timestamp, const QString &machine, const QString &source, const WwBaseEventType &event);

    // Per source, per machine: a condition definition goes out once per source and condition id.
    QHash<QString, QHash<QString, MachineConditions>> m_knownConditions;
};

#endif
