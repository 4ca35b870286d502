#ifndef ORVIX_JSONL_H
#define ORVIX_JSONL_H

#include "itarget.h"
#include "settingsgroup.h"

#include <QDateTime>
#include <QFile>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

/**
 * A target that writes every dataset it receives as one line of JSON (the codec's form) to a file or to standard
 * output, each line written at once so that nothing is lost when the process is killed.
 */
class Jsonl : public QObject, public ITarget
{
    Q_OBJECT
    Q_INTERFACES(ITarget)
public:
    /** Every key of the group jsonl, in the order its sample.ini documents them. */
    static const QVector<SettingKey> &settings();

    explicit Jsonl(QObject *parent = nullptr);

    /** Opens the file of the key file for appending (its folder made when missing), or standard output. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "jsonl". */
    QString name() const override;

public slots:
    /** Writes the dataset as one line with a single write. */
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    /** Writes line whole or not at all; false with the operating system's error number otherwise. */
    bool writeWholeLine(const QByteArray &line, int *error);

    QFile m_file;
    QString m_target;
    // Datasets that could not be written since writing last worked.
    qint64 m_failed = 0;
};

#endif
