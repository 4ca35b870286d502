#ifndef ORVIX_MMTOOPCUAMAPPER_H
#define ORVIX_MMTOOPCUAMAPPER_H

#include "iprocessor.h"
#include "notificationsaddv1.h"
#include "wwidentification.h"
#include "wwstate.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <optional>

struct WwBaseEventType;

/**
 * Turns the MM datasets of a machine back into the OPC UA woodworking model (WwIdentification, WwState,
 * WwBaseEventType, WwManufacturerSpecific) for a chain that serves that model; every incoming dataset is passed on
 * unchanged first. Core does not place it in the service's own chain.
 *
 * Choices made where the mapping leaves room:
 * - An event's Id is the notification id, its Path the parts of that id before its last "/" (empty parts kept; an
 *   id with nothing before its last "/", or without one, gives an empty Path). OpcUaToMMMapper forms a notification
 *   id from the source path joined with "/", then "/" and the machine's message id, so the Path it received comes
 *   back unchanged. The three further strings carry the notification's messageCode, text7 and text8, in this order.
 *   Removals are looked up by the id exactly as given; a withdrawal that names only the bare message id therefore
 *   finds no notification raised under the full id.
 * - Warning and Alarm are cleared again once no active notification of level 2 or level 3 respectively remains
 *   (after a removal or a remove-all), so that an operator does not see a warning that the machine has withdrawn.
 *   They are only cleared, never raised, by a removal, and not at all for a machine that supplies its own WwState.
 * - A machine that supplies its own WwIdentification without being configured gets an identification record without
 *   a locale; its events then fall back to "en" with the locale warning, as for a machine without any record. The
 *   locale warning is logged for every event built, so a notification that is raised and removed warns twice.
 * - The updates from SwVerV1 and OrderV1 are logged at info level.
 * - The StateV1 codes 0, above 7 and below 0 publish the current WwState unchanged; only a row that changes the record
 *   marks the Flags block present first (as do GeneralV1 and a notification that raises a flag).
 * - A removal always logs its "removing" debug line, followed by the "unknown notification" line when there was none.
 * - The remove-all events go out in the order of the notification ids.
 * - The synthetic offline StateV1 carries the source of the machine's last dataset.
 * - Floating-point counters are converted to unsigned 64-bit by truncating towards zero, taking values from 2^63 up
 *   as unsigned; NaN gives 0, values from 2^64 up the largest number, negative ones wrap as a signed number would.
 *   Relative values are unsigned differences, so a counter that goes back wraps around.
 * - InitialOperationDate tries its five forms in the fixed order. Qt's ISO 8601 reading, which comes first, already
 *   accepts "yyyy-MM-dd HH:mm:ss:zzz" and drops the milliseconds after the colon; the order is kept all the same.
 * - Configuration values given as a list (an unquoted comma in the INI file) are joined with ", ".
 *
 * The clocks and intervals can be replaced, so that tests need not wait for the real 30 s and 600000 ms.
 */
class MmToOpcUaMapper : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    /** How long a machine may stay without WwCapabilities before it is taken to have none, in milliseconds. */
    static constexpr qint64 DefaultCapabilityTimeout = 30000;
    /** The offline timer's period and the silence after which a machine is marked offline, in milliseconds. */
    static constexpr int DefaultOfflineTimeout = 600000;

    explicit MmToOpcUaMapper(QObject *parent = nullptr);
    ~MmToOpcUaMapper() override;

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

    /**
     * Replaces the monotonic clock (non-negative milliseconds) behind the first-seen, last-seen and duration timers;
     * an empty function restores the real one.
     */
    void setElapsedClock(std::function<qint64()> clock);
    /** Replaces the source of the current date-time of the datasets that the mapper makes on its own. */
    void setDateTimeClock(std::function<QDateTime()> clock);
    /** Sets the time after a machine's first dataset when it is taken to have no capabilities. */
    void setCapabilityTimeout(qint64 msecs);
    /** Sets the offline timer's period and the silence after which a machine is marked offline. */
    void setOfflineTimeout(int msecs);

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    /** A monotonic elapsed timer on the mapper's clock; it is not running until started. */
    struct Stopwatch
    {
        qint64 started = 0;
        bool running = false;

        void start(qint64 now)
        {
            started = now;
            running = true;
        }
        qint64 elapsed(qint64 now) const { return now - started; }
    };

    enum Duration { Standby, Working, Production, ProductionWithoutWorkpiece, Error, DurationCount };
    struct StateRow;
    static const StateRow StateRows[];

    /** Everything the mapper keeps about one machine. */
    struct Machine
    {
        WwState state;
        Stopwatch firstSeen;
        Stopwatch lastSeen;
        Stopwatch durations[DurationCount];
        std::optional<quint64> firstMachineOnTime;
        std::optional<quint64> firstPowerPresentTime;
        std::optional<quint64> firstPieces;
        std::optional<quint64> firstLength;
        QMap<QString, NotificationsAddV1> notifications;
        std::optional<quint32> capabilities;
        bool hasIdentification = false;
        QString locale;
        WwIdentification identification;
        QString lastSource;
    };

    qint64 elapsedNow() const;
    QDateTime currentDateTime() const;
    void readIdentification(const QVariantMap &config);
    void publishMachine(const QString &machine, const QVariantMap &keys);

    void mapIdentification(Machine &record, const QString &machine, const QVariant &data);
    void mapSoftwareVersion(Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source,
        const QVariant &data);
    void mapGeneral(Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source,
        const QVariant &data);
    void mapOrder(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);
    void mapNotificationAdd(Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source,
        const QVariant &data);
    void mapNotificationRemove(Machine &record, const QDateTime &timestamp, const QString &machine,
        const QString &source, const QVariant &data);
    void mapNotificationRemoveAll(
        Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source);
    void mapState(Machine &record, qint64 now, const QDateTime &timestamp, const QString &machine,
        const QString &source, const QVariant &data);

    WwBaseEventType eventFor(
        const Machine &record, const QString &machine, const NotificationsAddV1 &notification, bool raised) const;
    static bool clearWithdrawnFlags(Machine &record);
    static void restartDuration(Machine &record, Duration duration, qint64 now);
    void markSilentMachinesOffline();

    QHash<QString, Machine> m_machines;
    bool m_eventPrefix = false;
    QTimer m_offlineTimer;
    QElapsedTimer m_monotonic;
    std::function<qint64()> m_elapsedClock;
    std::function<QDateTime()> m_dateTimeClock;
    qint64 m_capabilityTimeout = DefaultCapabilityTimeout;
    qint64 m_offlineTimeout = DefaultOfflineTimeout;
};

#endif
