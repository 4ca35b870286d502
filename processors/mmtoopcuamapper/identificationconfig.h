#ifndef ORVIX_IDENTIFICATIONCONFIG_H
#define ORVIX_IDENTIFICATIONCONFIG_H

#include "wwidentification.h"

#include <QString>
#include <QVariantMap>

/**
 * A configured machine's nameplate, as one machine's map of the opcuawwcsidentification group gives it: the locale of
 * its texts and its WwIdentification record.
 */
struct IdentificationConfig
{
    QString locale;
    WwIdentification identification;

    /**
     * Reads one machine's keys. What is missing, unreadable or too large for its field is warned about in the
     * mapper's category and left empty, 0 or absent; the locale falls back to "en".
     */
    static IdentificationConfig read(const QVariantMap &keys);
};

#endif
