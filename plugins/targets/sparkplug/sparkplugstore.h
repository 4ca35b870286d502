#ifndef ORVIX_SPARKPLUGSTORE_H
#define ORVIX_SPARKPLUGSTORE_H

#include <QByteArray>
#include <QFile>
#include <QHash>
#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QVector>

/**
 * What the edge node keeps across restarts in its state folder: the bdSeq of the next connection, and the catalog of
 * every device's metrics with their aliases and types, so that a restarted node births the devices it knew with the
 * same aliases and the data waiting in the spool still means the same metrics.
 */
class SparkplugStore
{
public:
    /** One metric of a device as the catalog knows it. */
    struct Entry
    {
        QByteArray name;
        quint64 alias = 0;
        quint32 type = 0;
    };

    SparkplugStore(const QString &folder, const QLoggingCategory &category);

    /** Makes the folder and reads the bdSeq and the catalog an earlier run left; false with error if it can't. */
    bool open(QString *error);

    /** The bdSeq of the connection about to begin (0 to 255); the next one is saved at once. */
    quint32 takeBdSeq();

    /** The machines the catalog knows, in the order they were first seen. */
    const QStringList &machines() const { return m_machines; }
    /** Their metrics, in the order they were added, each with its latest type. */
    QVector<Entry> entries(const QString &machine) const { return m_entries.value(machine); }

    /** Saves a metric's type; a metric not known yet gets the next free alias. Returns its alias. */
    quint64 remember(const QString &machine, const QByteArray &name, quint32 type);

    QString folder() const { return m_folder; }

private:
    QString m_folder;
    const QLoggingCategory &m_category;
    QFile m_catalog;
    quint32 m_nextBdSeq = 0;
    quint64 m_nextAlias = 1;
    QStringList m_machines;
    QHash<QString, QVector<Entry>> m_entries;
};

#endif
