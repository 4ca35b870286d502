#ifndef ORVIX_SPARKPLUGDEVICE_H
#define ORVIX_SPARKPLUGDEVICE_H

#include "notificationsaddv1.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QString>
#include <QVariant>
#include <QVector>

class SparkplugStore;

/** The Sparkplug data types that the metrics of a machine use; the numbers are those of the wire format. */
enum class SparkplugType : quint32 {
    Int32 = 3,
    Int64 = 4,
    UInt64 = 8,
    Double = 10,
    Boolean = 11,
    String = 12,
    DataSet = 16,
};

/** One metric of a device: its name, alias and type, and its current value with the time it took it. */
struct SparkplugMetric
{
    QByteArray name;
    quint64 alias = 0;
    SparkplugType type = SparkplugType::String;
    bool null = true;
    quint64 timestamp = 0;
    quint64 whole = 0;
    double real = 0;
    QByteArray text;
    quint32 touched = 0; ///< the number of the dataset that changed it last
};

/**
 * One machine as a Sparkplug device: its topics, its metrics with their current values, and the notifications that
 * are active. Built once when the machine is first seen; a dataset only updates values in place and says which
 * metrics changed.
 */
class SparkplugDevice
{
public:
    /** What a dataset did to the device. */
    struct Change
    {
        QVector<int> metrics; ///< indexes of the metrics whose value changed
        bool newMetrics = false; ///< a metric was added or changed its type: the device must be born again
        bool died = false; ///< its state became offline
        bool revived = false; ///< its state left offline
    };

    /** Fixed metrics, in this order, before the conditions. */
    enum Fixed {
        State,
        PowerOnHours,
        FeedOnHours,
        Pieces,
        Length,
        Counter5,
        Counter6,
        Notifications,
        SoftwareVersion,
        ProgramName,
        FixedCount
    };

    /** Active notifications kept per machine; past that the oldest is dropped. */
    static constexpr int MaxNotifications = 256;
    /** The state code of an offline machine. */
    static constexpr qint32 Offline = 1;

    /** The device for machine below topic prefix "spBv1.0/<group>/"; its metrics come from the store's catalog. */
    SparkplugDevice(
        const QString &machine, const QByteArray &groupPrefix, const QByteArray &edgeNodeId, SparkplugStore *store);

    /** Applies one dataset: values are updated in place, change says what happened; false for an unmapped type. */
    bool apply(const QDateTime &timestamp, const QVariant &data, Change *change);

    const QString &machine() const { return m_machine; }
    const QByteArray &deviceId() const { return m_deviceId; }
    const QByteArray &birthTopic() const { return m_birthTopic; }
    const QByteArray &dataTopic() const { return m_dataTopic; }
    const QByteArray &deathTopic() const { return m_deathTopic; }
    const QVector<SparkplugMetric> &metrics() const { return m_metrics; }
    const QVector<NotificationsAddV1> &notifications() const { return m_notifications; }
    /** False while its state is offline. */
    bool isAlive() const { return m_alive; }
    /** Whether a DBIRTH of it was queued since its last DDEATH; kept by the edge node. */
    bool isAnnounced() const { return m_announced; }
    void setAnnounced(bool announced) { m_announced = announced; }

    /** The name of a condition's metric for its id. */
    static QByteArray conditionName(const QString &id);

private:
    int addMetric(const QByteArray &name, SparkplugType type);
    int condition(const QString &id, SparkplugType type, Change *change);
    void setWhole(int index, quint64 ms, quint64 value, Change *change);
    void setReal(int index, quint64 ms, double value, Change *change);
    void setText(int index, quint64 ms, const QByteArray &value, Change *change);
    void setNull(int index, quint64 ms, Change *change);
    void setVariant(int index, quint64 ms, const QVariant &value, Change *change);
    void notificationsChanged(quint64 ms, Change *change);

    QString m_machine;
    QByteArray m_deviceId;
    QByteArray m_birthTopic;
    QByteArray m_dataTopic;
    QByteArray m_deathTopic;
    SparkplugStore *m_store;
    QVector<SparkplugMetric> m_metrics;
    QHash<QString, int> m_conditions;
    QVector<NotificationsAddV1> m_notifications;
    bool m_alive = true;
    bool m_announced = false;
    quint32 m_serial = 0;
};

#endif
