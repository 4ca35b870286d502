#ifndef ORVIX_OPTIONAL_H
#define ORVIX_OPTIONAL_H

#include <QtGlobal>

#include <optional>

namespace orvix {

/**
 * Returns the value of an optional record field. Reading an absent value is a programming error: it is reported as
 * "Optional has no value" and ends the process, as std::optional::value() would with an exception that no component
 * may let escape.
 */
template <typename T> inline const T &optionalValue(const std::optional<T> &optional)
{
    if (Q_UNLIKELY(!optional.has_value()))
        qFatal("Optional has no value");
    return *optional;
}

/** Returns the value of an optional record field for changing it; an absent value ends the process as above. */
template <typename T> inline T &optionalValue(std::optional<T> &optional)
{
    if (Q_UNLIKELY(!optional.has_value()))
        qFatal("Optional has no value");
    return *optional;
}

} // namespace orvix

#endif
