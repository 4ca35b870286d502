#include "sparkplugdevice.h"

#include "conditiondatasv2.h"
#include "conditiondefinitionsv2.h"
#include "generalv1.h"
#include "mqttconnection.h"
#include "notificationsremoveallv1.h"
#include "notificationsremovev1.h"
#include "orderv1.h"
#include "sparkplugstore.h"
#include "statev1.h"
#include "swverv1.h"

namespace {

const QByteArray ConditionPrefix = QByteArrayLiteral("Conditions/");

struct FixedMetric
{
    const char *name;
    SparkplugType type;
};

const FixedMetric FixedMetrics[SparkplugDevice::FixedCount] = {
    { "State", SparkplugType::Int32 },
    { "General/powerOnHours", SparkplugType::Double },
    { "General/feedOnHours", SparkplugType::Double },
    { "General/pieces", SparkplugType::UInt64 },
    { "General/length", SparkplugType::Double },
    { "General/counter5", SparkplugType::Int64 },
    { "General/counter6", SparkplugType::Int64 },
    { "Notifications/Active", SparkplugType::DataSet },
    { "Software/Version", SparkplugType::String },
    { "Order/ProgramName", SparkplugType::String },
};

SparkplugType definedType(qint32 dataType)
{
    switch (dataType) {
    case 1:
        return SparkplugType::Int64;
    case 2:
        return SparkplugType::Double;
    case 3:
        return SparkplugType::Boolean;
    default:
        return SparkplugType::String;
    }
}

// A value of a condition that was never defined takes the type it comes with.
SparkplugType typeOf(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return SparkplugType::Boolean;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return SparkplugType::Int64;
    case QMetaType::Double:
    case QMetaType::Float:
        return SparkplugType::Double;
    default:
        return SparkplugType::String;
    }
}

} // namespace

SparkplugDevice::SparkplugDevice(
    const QString &machine, const QByteArray &groupPrefix, const QByteArray &edgeNodeId, SparkplugStore *store)
    : m_machine(machine)
    , m_deviceId(MqttConnection::topicLevel(machine).toUtf8())
    , m_store(store)
{
    const QByteArray tail = '/' + edgeNodeId + '/' + m_deviceId;
    m_birthTopic = groupPrefix + "DBIRTH" + tail;
    m_dataTopic = groupPrefix + "DDATA" + tail;
    m_deathTopic = groupPrefix + "DDEATH" + tail;
    for (const FixedMetric &fixed : FixedMetrics)
        addMetric(fixed.name, fixed.type);
    m_metrics[Notifications].null = false;
    for (const SparkplugStore::Entry &entry : m_store->entries(machine)) {
        if (entry.name.startsWith(ConditionPrefix)) {
            const QString id = QString::fromUtf8(entry.name.mid(ConditionPrefix.size()));
            m_conditions.insert(id, addMetric(entry.name, SparkplugType(entry.type)));
        }
    }
}

QByteArray SparkplugDevice::conditionName(const QString &id)
{
    return ConditionPrefix + id.toUtf8();
}

bool SparkplugDevice::apply(const QDateTime &timestamp, const QVariant &data, Change *change)
{
    ++m_serial;
    const quint64 ms
        = quint64(timestamp.isValid() ? timestamp.toMSecsSinceEpoch() : QDateTime::currentMSecsSinceEpoch());
    const int type = data.userType();
    if (type == qMetaTypeId<StateV1>()) {
        const qint32 state = qvariant_cast<StateV1>(data).state;
        setWhole(State, ms, quint64(qint64(state)), change);
        if (state == Offline && m_alive) {
            change->died = true;
            m_alive = false;
        } else if (state != Offline && !m_alive) {
            change->revived = true;
            m_alive = true;
        }
    } else if (type == qMetaTypeId<GeneralV1>()) {
        const GeneralV1 general = qvariant_cast<GeneralV1>(data);
        setReal(PowerOnHours, ms, general.powerOnHours, change);
        setReal(FeedOnHours, ms, general.feedOnHours, change);
        setWhole(Pieces, ms, general.pieces, change);
        setReal(Length, ms, general.length, change);
        setWhole(Counter5, ms, quint64(general.counter5), change);
        setWhole(Counter6, ms, quint64(general.counter6), change);
    } else if (type == qMetaTypeId<ConditionDefinitionsV2>()) {
        const ConditionDefinitionsV2 definitions = qvariant_cast<ConditionDefinitionsV2>(data);
        for (const ConditionDefinitionV2 &definition : definitions.items)
            condition(definition.id, definedType(definition.dataType), change);
    } else if (type == qMetaTypeId<ConditionDatasV2>()) {
        const ConditionDatasV2 values = qvariant_cast<ConditionDatasV2>(data);
        for (const ConditionDataV2 &value : values.items) {
            const int index = m_conditions.value(value.id, -1);
            setVariant(index >= 0 ? index : condition(value.id, typeOf(value.value), change), ms, value.value, change);
        }
    } else if (type == qMetaTypeId<NotificationsAddV1>()) {
        const NotificationsAddV1 notification = qvariant_cast<NotificationsAddV1>(data);
        auto known = std::find_if(m_notifications.begin(), m_notifications.end(),
            [&notification](const NotificationsAddV1 &other) { return other.id == notification.id; });
        if (known != m_notifications.end()) {
            *known = notification;
        } else {
            if (m_notifications.size() >= MaxNotifications)
                m_notifications.removeFirst();
            m_notifications.append(notification);
        }
        notificationsChanged(ms, change);
    } else if (type == qMetaTypeId<NotificationsRemoveV1>()) {
        const QString id = qvariant_cast<NotificationsRemoveV1>(data).id;
        auto known = std::find_if(m_notifications.begin(), m_notifications.end(),
            [&id](const NotificationsAddV1 &other) { return other.id == id; });
        if (known != m_notifications.end()) {
            m_notifications.erase(known);
            notificationsChanged(ms, change);
        }
    } else if (type == qMetaTypeId<NotificationsRemoveAllV1>()) {
        if (!m_notifications.isEmpty()) {
            m_notifications.clear();
            notificationsChanged(ms, change);
        }
    } else if (type == qMetaTypeId<SwVerV1>()) {
        setText(SoftwareVersion, ms, qvariant_cast<SwVerV1>(data).version.toUtf8(), change);
    } else if (type == qMetaTypeId<OrderV1>()) {
        setText(ProgramName, ms, qvariant_cast<OrderV1>(data).programName.toUtf8(), change);
    } else {
        return false;
    }
    return true;
}

int SparkplugDevice::addMetric(const QByteArray &name, SparkplugType type)
{
    SparkplugMetric metric;
    metric.name = name;
    metric.type = type;
    metric.alias = m_store->remember(m_machine, name, quint32(type));
    m_metrics.append(metric);
    return m_metrics.size() - 1;
}

int SparkplugDevice::condition(const QString &id, SparkplugType type, Change *change)
{
    const int index = m_conditions.value(id, -1);
    if (index < 0) {
        change->newMetrics = true;
        const int added = addMetric(conditionName(id), type);
        m_conditions.insert(id, added);
        return added;
    }
    SparkplugMetric &metric = m_metrics[index];
    if (metric.type != type) {
        // A condition defined again with another type is a new metric to the host: its old value does not fit.
        change->newMetrics = true;
        metric.type = type;
        metric.null = true;
        metric.alias = m_store->remember(m_machine, metric.name, quint32(type));
    }
    return index;
}

void SparkplugDevice::setWhole(int index, quint64 ms, quint64 value, Change *change)
{
    SparkplugMetric &metric = m_metrics[index];
    if (!metric.null && metric.whole == value)
        return;
    metric.null = false;
    metric.whole = value;
    metric.timestamp = ms;
    if (metric.touched != m_serial) {
        metric.touched = m_serial;
        change->metrics.append(index);
    }
}

void SparkplugDevice::setReal(int index, quint64 ms, double value, Change *change)
{
    SparkplugMetric &metric = m_metrics[index];
    if (!metric.null && metric.real == value)
        return;
    metric.null = false;
    metric.real = value;
    metric.timestamp = ms;
    if (metric.touched != m_serial) {
        metric.touched = m_serial;
        change->metrics.append(index);
    }
}

void SparkplugDevice::setText(int index, quint64 ms, const QByteArray &value, Change *change)
{
    SparkplugMetric &metric = m_metrics[index];
    if (!metric.null && metric.text == value)
        return;
    metric.null = false;
    metric.text = value;
    metric.timestamp = ms;
    if (metric.touched != m_serial) {
        metric.touched = m_serial;
        change->metrics.append(index);
    }
}

void SparkplugDevice::setNull(int index, quint64 ms, Change *change)
{
    SparkplugMetric &metric = m_metrics[index];
    if (metric.null)
        return;
    metric.null = true;
    metric.timestamp = ms;
    if (metric.touched != m_serial) {
        metric.touched = m_serial;
        change->metrics.append(index);
    }
}

void SparkplugDevice::setVariant(int index, quint64 ms, const QVariant &value, Change *change)
{
    bool ok = true;
    switch (m_metrics.at(index).type) {
    case SparkplugType::Boolean:
        setWhole(index, ms, value.toBool() ? 1 : 0, change);
        return;
    case SparkplugType::Int64: {
        const qint64 whole = value.toLongLong(&ok);
        if (ok)
            setWhole(index, ms, quint64(whole), change);
        break;
    }
    case SparkplugType::Double: {
        const double real = value.toDouble(&ok);
        if (ok)
            setReal(index, ms, real, change);
        break;
    }
    default:
        setText(index, ms, value.toString().toUtf8(), change);
        return;
    }
    // A value that does not fit the defined type is no value, rather than a wrong one.
    if (!ok)
        setNull(index, ms, change);
}

void SparkplugDevice::notificationsChanged(quint64 ms, Change *change)
{
    SparkplugMetric &metric = m_metrics[Notifications];
    metric.timestamp = ms;
    if (metric.touched != m_serial) {
        metric.touched = m_serial;
        change->metrics.append(Notifications);
    }
}
