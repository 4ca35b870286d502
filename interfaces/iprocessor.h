#ifndef ORVIX_IPROCESSOR_H
#define ORVIX_IPROCESSOR_H

#include <QString>
#include <QVariantMap>
#include <QtPlugin>

/**
 * The interface of the built-in dataset processors. An implementation derives from QObject first and IProcessor
 * second and declares, after its overrides, the signal
 * dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data) and
 * the slot processData with the same parameters; both normalise to (QDateTime,QString,QString,QVariant), so they
 * connect to datasources and targets that declare theirs by value. The references are the sender's objects: a
 * processor emits only locals and its own parameters, never an object that a nested dataset could change or move.
 */
class IProcessor
{
public:
    virtual ~IProcessor() = default;

    /** Reads the processor's own group of the configuration; the service ignores the result. */
    virtual bool init(const QVariantMap &config, QVariantMap &shared) = 0;

    /** The processor's name, shown in log lines. */
    virtual QString name() const = 0;

    /** The processor's place in the chain: lower numbers run first. */
    virtual unsigned int orderNumber() const = 0;
};

Q_DECLARE_INTERFACE(IProcessor, "IProcessor")

#endif
