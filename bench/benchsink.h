#ifndef ORVIX_BENCHSINK_H
#define ORVIX_BENCHSINK_H

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>

/** Stands in for a target plugin: counts the datasets that reach it and does nothing else with them. */
class BenchSink : public QObject
{
    Q_OBJECT
public:
    explicit BenchSink(QObject *parent = nullptr);

    /** Connects the sender's dataProcessed to processData the way Core connects the last processor to a target. */
    void connectFrom(QObject *sender);

    /** The datasets received so far. */
    quint64 count() const { return m_count; }

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    quint64 m_count = 0;
};

#endif
