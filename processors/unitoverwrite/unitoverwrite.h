#ifndef ORVIX_UNITOVERWRITE_H
#define ORVIX_UNITOVERWRITE_H

#include "iprocessor.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>

/**
 * Replaces the unit of chosen maintenance and condition items and rescales their values, per machine, as the
 * configuration group "unitOverwrite" says.
 */
class UnitOverwrite : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit UnitOverwrite(QObject *parent = nullptr);

    /** Builds the override table from the group "unitOverwrite"; always succeeds, also without the group. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    /** Rewrites maintenance and condition datasets of machines with overrides; passes everything else on. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    struct Override
    {
        QString unitText;
        double factor = 0;
    };

    /** The overrides of one machine and category: per item id, and the "*" one for every other id. */
    struct CategoryOverrides
    {
        QHash<QString, Override> byId;
        Override wildcard;
        bool hasWildcard = false;

        /** The override for the item id: its own, else the wildcard, else none. */
        const Override *find(const QString &id) const;
        bool isEmpty() const;
    };

    struct MachineOverrides
    {
        CategoryOverrides maintenance;
        CategoryOverrides condition;
    };

    QVariant rewrite(const QVariant &data, const MachineOverrides &overrides) const;

    QHash<QString, MachineOverrides> m_overrides;
    const int m_maintenanceDefinitionsType;
    const int m_maintenanceDefinitionType;
    const int m_maintenanceDatasType;
    const int m_maintenanceDataType;
    const int m_conditionDefinitionsType;
    const int m_conditionDefinitionType;
    const int m_conditionDatasType;
    const int m_conditionDataType;
};

#endif
