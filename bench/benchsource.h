#ifndef ORVIX_BENCHSOURCE_H
#define ORVIX_BENCHSOURCE_H

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>

/** Stands in for a datasource plugin: the benchmarks emit its dataReceived to feed a chain or a single processor. */
class BenchSource : public QObject
{
    Q_OBJECT
public:
    explicit BenchSource(QObject *parent = nullptr);

    /** Connects dataReceived to the receiver's processData the way Core connects a datasource. */
    void connectTo(QObject *receiver);

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#endif
