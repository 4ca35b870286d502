#ifndef ORVIX_JSONL_H
#define ORVIX_JSONL_H

#include "itarget.h"
#include "settingstable.h"

#include <QDateTime>
#include <QFile>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

/**
 * A target that writes every dataset it receives as one line of JSON (the codec's form) to a file or to standard
 * output. The lines of one turn of the event loop go out with one write at its end, so that between two turns
 * everything received is in the file, and only whole lines are.
 */
class Jsonl : public QObject, public ITarget
{
    Q_OBJECT
    Q_INTERFACES(ITarget)
public:
    /** What the group jsonl says. */
    struct Options
    {
        QString file;
    };

    /** Every key of the group jsonl, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit Jsonl(QObject *parent = nullptr);
    /** Writes the lines not yet written. */
    ~Jsonl() override;

    /** Opens the file of the key file for appending (its folder made when missing), or standard output. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "jsonl". */
    QString name() const override;

public slots:
    /** Adds the dataset's line to those written at the end of this turn of the event loop. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    /** Writes the gathered lines, and reports a failure or the end of one. */
    void flush();
    /**
     * Writes the gathered lines with one write; the number of lines written whole, and with fewer than all the
     * operating system's error number. A line written in part is cut off again.
     */
    int writeWholeLines(int *error);

    QFile m_file;
    // The lines gathered in this turn of the event loop, and how many.
    QByteArray m_batch;
    int m_batchLines = 0;
    bool m_flushQueued = false;
    QString m_target;
    // Datasets that could not be written since writing last worked.
    qint64 m_failed = 0;
};

#endif
