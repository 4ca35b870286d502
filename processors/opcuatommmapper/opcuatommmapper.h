#ifndef ORVIX_OPCUATOMMMAPPER_H
#define ORVIX_OPCUATOMMMAPPER_H

#include "conditiondatav2.h"
#include "iprocessor.h"
#include "wwmodel.h"

#include <QDateTime>
#include <QHash>
#include <QList>
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
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    /** The number of flags and values of a machine state record, each of them a condition. */
    static constexpr int StateItemCount = WwModel::FlagCount + WwModel::ValueCount;
    /** The number of nameplate fields that become conditions. */
    static constexpr int IdentificationFieldCount = WwModel::IdentificationFieldCount;

    /**
     * What is kept of one machine as one source reports it: the ids of the conditions defined so far (each built
     * with its definition) and the last condition values and operating data sent, which the next update changes in
     * place.
     */
    struct KnownMachine
    {
        std::array<QString, StateItemCount> stateIds;
        /** The last ConditionDatasV2 of the flags and values, shared with its receivers until it changes. */
        QVariant stateDatas;
        /** The last GeneralV1, shared with its receivers until it changes. */
        QVariant operatingData;
        std::bitset<StateItemCount> stateDefined;
        /** The flags and values that stateDatas holds, in their order. */
        std::bitset<StateItemCount> stateInDatas;
        /**
         * The bits of each value in stateDatas, by flag and value: an update is compared with these rather than with
         * the list's variants, each a heap block of its own that a steady update then need not touch.
         */
        std::array<quint64, StateItemCount> stateBits {};
        /** The list sent before the last one, with its items and their bits, to write the next change into. */
        QList<ConditionDataV2> spareItems;
        std::bitset<StateItemCount> spareInDatas;
        std::array<quint64, StateItemCount> spareBits {};
        std::array<QString, IdentificationFieldCount> identificationIds;
        std::bitset<IdentificationFieldCount> identificationDefined;
    };

    KnownMachine &knownMachine(const QString &source, const QString &machine);
    void mapState(const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state);
    void mapOperatingData(const QDateTime &timestamp, const QString &machine, const QString &source,
        const WwState &state, KnownMachine &known);
    void mapStateConditions(const QDateTime &timestamp, const QString &machine, const QString &source,
        const WwState &state, KnownMachine &known);
    void mapIdentification(const QDateTime &timestamp, const QString &machine, const QString &source,
        const WwIdentification &identification);
    void mapEvent(
        const QDateTime &timestamp, const QString &machine, const QString &source, const WwBaseEventType &event);

    // Per source, then per machine: a condition definition goes out once per source and condition id, and two
    // sources that report one machine each keep the values they sent.
    QHash<QString, QHash<QString, KnownMachine>> m_knownMachines;
};

#endif
