#ifndef ORVIX_REPLAY_H
#define ORVIX_REPLAY_H

#include "datasetcodec.h"
#include "idatasource.h"
#include "settingstable.h"

#include <QDateTime>
#include <QFile>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QVector>

/**
 * A datasource that sends the datasets of a JSON-lines file (the codec's form, one dataset per line) in file order,
 * with a pause between two of them, once or over and over.
 */
class Replay : public QObject, public IDatasource
{
    Q_OBJECT
    Q_INTERFACES(IDatasource)
public:
    /** What the group replay says. */
    struct Options
    {
        QString file;
        int interval = 0;
        bool loop = false;
        qint64 maxLineBytes = 0;
    };

    /** Every key of the group replay, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit Replay(QObject *parent = nullptr);

    /** Opens the file and schedules its first dataset; false when the file can't be read. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "replay". */
    QString name() const override;

signals:
    // By const reference, with the same normalised signature: emitting copies none of the four.
    void dataReceived(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    void sendPending();
    void scheduleNext();
    bool readDataset(qint64 *delay);
    /**
     * The next line without its line feed, sharing the bytes of the piece of the file read last, or at the end of the
     * file an empty line and m_atEnd set; false when reading fails. Lines longer than m_maxLineBytes are skipped with
     * a warning.
     */
    bool readLine(QByteArray *line);
    void warnLongLine();
    void rewind();

    QFile m_file;
    // The piece of the file read last, kept so that reading allocates nothing; the bytes not taken yet lie between
    // m_chunkStart and m_chunkEnd. It grows only as far as the longest line read makes it.
    QByteArray m_chunk;
    int m_chunkStart = 0;
    int m_chunkEnd = 0;
    // In the middle of a line too long to keep.
    bool m_skipping = false;
    bool m_atEnd = false;
    QTimer m_timer;
    int m_interval = 0;
    bool m_loop = false;
    qint64 m_maxLineBytes = 0;
    qint64 m_lineNumber = 0;
    qint64 m_sent = 0;
    qint64 m_datasetsThisPass = 0;
    DatasetCodec::Dataset m_pending;
};

#endif
