#ifndef ORVIX_VALIDATOR_H
#define ORVIX_VALIDATOR_H

#include "conditiondatav2.h"
#include "iprocessor.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QVariant>

struct MaintenanceDefinitionV1;

/**
 * Drops invalid MM datasets and repairs the ones it can: it adds missing maintenance unit codes and converts
 * condition values that arrive as text into the data type their condition definition declares.
 */
class Validator : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit Validator(QObject *parent = nullptr);

    /** The validator has no configuration: does nothing and returns true. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "Validator". */
    QString name() const override;
    /** 900: after the unit and maintenance text overrides, before the rate limiter. */
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    /** Checks the dataset and passes it on, repaired where needed, or drops it with a warning. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    using Check = bool (Validator::*)(const QString &machine, QString &reason, const QVariant &data);
    using Repair
        = QVariant (Validator::*)(const QString &machine, QString &reason, bool &modified, const QVariant &data);
    using ConditionTypes = QHash<QString, qint32>;

    /** What the validator knows of the conditions of one machine. */
    struct MachineConditions
    {
        // Condition id to the dataType of the latest definition.
        ConditionTypes types;
        // The last list of condition values that held no text, kept so that the same list is known again without
        // looking at its items: while it is kept here, nobody can change its items without copying them.
        QList<ConditionDataV2> textFree;
    };

    bool checkState(const QString &machine, QString &reason, const QVariant &data);
    bool checkNotificationAdd(const QString &machine, QString &reason, const QVariant &data);
    bool checkNotificationRemove(const QString &machine, QString &reason, const QVariant &data);
    bool checkNotificationRemoveAll(const QString &machine, QString &reason, const QVariant &data);
    bool learnConditionDefinition(const QString &machine, QString &reason, const QVariant &data);
    bool learnConditionDefinitions(const QString &machine, QString &reason, const QVariant &data);

    QVariant repairMaintenanceDefinitions(
        const QString &machine, QString &reason, bool &modified, const QVariant &data);
    QVariant repairMaintenanceDefinition(const QString &machine, QString &reason, bool &modified, const QVariant &data);
    QVariant repairConditionData(const QString &machine, QString &reason, bool &modified, const QVariant &data);
    QVariant repairConditionDatas(const QString &machine, QString &reason, bool &modified, const QVariant &data);

    static bool addUnitCode(MaintenanceDefinitionV1 &definition, QString &reason);
    static bool convertConditionValue(const ConditionTypes &types, const QString &machine, const ConditionDataV2 &item,
        QVariant &converted, QString &reason);

    // Keyed by the registered type id, which stands for the type name one to one and needs no string per dataset.
    QHash<int, Check> m_checks;
    QHash<int, Repair> m_repairs;
    // By machine name; never cleared.
    QHash<QString, MachineConditions> m_machines;
};

#endif
