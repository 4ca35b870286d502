#ifndef ORVIX_RECORDTRAITS_H
#define ORVIX_RECORDTRAITS_H

// What the codec's writer and readers know about the record types. Private to the codec.

#include "mmdatasets.h"
#include "wwtypes.h"

#include <QHash>
#include <QList>
#include <QString>

#include <optional>
#include <type_traits>

namespace CodecDetail {

// Integers beyond ±2^53 are not exact as JSON numbers in most readers, so they are written as decimal strings.
constexpr quint64 exactIntegerLimit = quint64(1) << 53;

template <typename T> struct IsOptional : std::false_type
{
};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type
{
};

template <typename T> struct IsList : std::false_type
{
};
template <typename T> struct IsList<QList<T>> : std::true_type
{
};

using TextHash = QHash<QString, QString>;

// The name of each record type in error messages; the nested blocks of WwState are not registered meta-types.
template <typename T> inline constexpr const char *recordName = nullptr;
#define ORVIX_RECORD_NAME(T) template <> inline constexpr const char *recordName<T> = #T;
ORVIX_RECORD_NAME(StateV1)
ORVIX_RECORD_NAME(GeneralV1)
ORVIX_RECORD_NAME(NotificationsAddV1)
ORVIX_RECORD_NAME(NotificationsRemoveV1)
ORVIX_RECORD_NAME(NotificationsRemoveAllV1)
ORVIX_RECORD_NAME(ConditionDefinitionsV2)
ORVIX_RECORD_NAME(ConditionDefinitionV2)
ORVIX_RECORD_NAME(ConditionDatasV2)
ORVIX_RECORD_NAME(ConditionDataV2)
ORVIX_RECORD_NAME(MaintenanceDefinitionsV1)
ORVIX_RECORD_NAME(MaintenanceDefinitionV1)
ORVIX_RECORD_NAME(MaintenanceDatasV1)
ORVIX_RECORD_NAME(MaintenanceDataV1)
ORVIX_RECORD_NAME(SwVerV1)
ORVIX_RECORD_NAME(OrderV1)
ORVIX_RECORD_NAME(WwState)
ORVIX_RECORD_NAME(WwStateFlags)
ORVIX_RECORD_NAME(WwStateValues)
ORVIX_RECORD_NAME(WwIdentification)
ORVIX_RECORD_NAME(WwBaseEventType)
ORVIX_RECORD_NAME(WwCapabilities)
ORVIX_RECORD_NAME(WwManufacturerSpecific)
#undef ORVIX_RECORD_NAME

} // namespace CodecDetail

#endif
