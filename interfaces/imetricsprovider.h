#ifndef ORVIX_IMETRICSPROVIDER_H
#define ORVIX_IMETRICSPROVIDER_H

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QtPlugin>

/**
 * An optional second interface of a plugin's root object: what the plugin reports to the service's /metrics and
 * /health endpoints. The service finds it with qobject_cast and asks for it only when the endpoints are read, on its
 * event loop thread, so a plugin keeps plain counters of its own and hands them out here.
 */
class IMetricsProvider
{
public:
    /** One connection the plugin keeps to a broker, a server or a machine. */
    struct Connection
    {
        /** A stable name from the configuration (a broker's address, a server's URL), never an id or a time. */
        QString name;
        /** Connected now. */
        bool up = false;
        /** Not connected, but still in its first attempt or its first wait before the next: not yet a fault. */
        bool starting = false;
        /** How often it was connected again after it had been lost. */
        quint64 reconnects = 0;
    };

    /** One value of the plugin, a counter or a gauge in base units. */
    struct Value
    {
        /** The full metric name, with the service's "orvix_" prefix; a counter's ends in "_total". */
        QByteArray name;
        /** One line saying what it counts or measures. */
        QByteArray help;
        bool counter = false;
        double value = 0;
        /** Labels of a bounded set only (machines, connections). */
        QList<QPair<QByteArray, QString>> labels;
    };

    virtual ~IMetricsProvider() = default;

    /** The plugin's connections with their state; empty for a plugin without any. */
    virtual QList<Connection> metricsConnections() const { return {}; }

    /** The plugin's own values. */
    virtual QList<Value> metricsValues() const { return {}; }
};

Q_DECLARE_INTERFACE(IMetricsProvider, "IMetricsProvider")

#endif
