#ifndef ORVIX_MQTTSPOOL_H
#define ORVIX_MQTTSPOOL_H

#include <QByteArray>
#include <QFile>
#include <QLoggingCategory>
#include <QObject>
#include <QString>
#include <QTimer>

#include <deque>

/**
 * An on-disk queue of messages for a broker: segment files in one folder, appended to and read in order, so that
 * what was handed to it outlives a killed process. Records are handed out in order, sent again after rewind(), and
 * leave only when acknowledged; past maxBytes the oldest segment is dropped. The layout and the sync policy are
 * described in plugins/targets/mqttout/README.md.
 */
class MqttSpool : public QObject
{
    Q_OBJECT
public:
    /** One queued message and its place in the queue. */
    struct Record
    {
        quint64 sequence = 0;
        QByteArray topic;
        QByteArray payload;
        bool retain = false;
    };

    /** A spool in folder that holds at most maxBytes of unacknowledged records; logs into category. */
    MqttSpool(const QString &folder, qint64 maxBytes, const QLoggingCategory &category, QObject *parent = nullptr);
    /** Syncs the data and saves the position of the oldest unacknowledged record. */
    ~MqttSpool() override;

    /** The size of one segment file for a spool of maxBytes: a sixteenth, from 4 KiB to 4 MiB. */
    static qint64 segmentBytes(qint64 maxBytes);

    /** Makes the folder, reads what an earlier run left (cutting off a torn last record) and opens it for appending. */
    bool open(QString *error);

    /**
     * Appends a record; dropped is set to the number of older unacknowledged records dropped to make room. False with
     * error when the record could not be written or is larger than the whole spool.
     */
    bool append(const QByteArray &topic, const QByteArray &payload, bool retain, qint64 *dropped, QString *error);

    /** Hands out the next record not handed out since the last rewind(); false when there is none. */
    bool next(Record *record);
    /** The record has been delivered; once every older one has been too, it leaves the spool. */
    void acknowledge(quint64 sequence);
    /**
     * Everything handed out but not acknowledged will be handed out again, oldest first; what was acknowledged in
     * the meantime is not.
     */
    void rewind();

    /** The sequence number that the next appended record gets: every record below it was appended before. */
    quint64 end() const { return m_next; }
    /** Records not acknowledged yet. */
    qint64 count() const { return qint64(m_next - m_head); }
    /** The sequence number of the oldest record not acknowledged yet, and of the next record appended. */
    quint64 headSequence() const { return m_head; }
    quint64 nextSequence() const { return m_next; }
    /** Their bytes in the segment files. */
    qint64 bytes() const { return m_totalBytes - m_headOffset; }
    /** Records handed out since the last rewind() and not acknowledged yet. */
    int outstanding() const;
    QString folder() const { return m_folder; }

    /** Writes what the page cache holds to the disk and saves the head position, if anything changed. */
    void sync();

private:
    struct Segment
    {
        quint64 first = 0;
        qint64 count = 0;
        qint64 bytes = 0;
    };
    struct Handed
    {
        qint64 bytes = 0;
        bool acknowledged = false;
    };

    QString segmentPath(quint64 first) const;
    bool scan(Segment *segment, qint64 *goodBytes, QString *error) const;
    qint64 offsetOf(const Segment &segment, qint64 index) const;
    bool startSegment(quint64 first, QString *error);
    void dropOldestSegment(qint64 *dropped);
    void removeFront();
    void advanceHead();
    const Segment *segmentOf(quint64 sequence) const;
    void followHead();
    bool readRecord(const Segment &segment, qint64 offset, Record *record, qint64 *size);
    void saveHead();
    void syncFolder() const;

    QString m_folder;
    qint64 m_maxBytes;
    qint64 m_segmentBytes;
    const QLoggingCategory &m_category;

    std::deque<Segment> m_segments;
    qint64 m_totalBytes = 0;
    QFile m_writeFile;
    QByteArray m_frame;

    quint64 m_next = 0;
    quint64 m_head = 0;
    qint64 m_headOffset = 0;
    quint64 m_savedHead = 0;

    quint64 m_send = 0;
    qint64 m_sendOffset = 0;
    std::deque<Handed> m_handed;

    QFile m_readFile;
    quint64 m_readSegment = 0;
    QByteArray m_readBuffer;
    qint64 m_readBufferOffset = 0;

    bool m_dataDirty = false;
    QTimer m_syncTimer;
};

#endif
