#ifndef ORVIX_METRICSSERVER_H
#define ORVIX_METRICSSERVER_H

#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class ChainMetrics;
class Core;
struct mg_connection;
struct mg_context;

namespace prometheus {
struct MetricFamily;
}

/**
 * The service's HTTP endpoint for monitoring: /metrics in the Prometheus text format and /health, on the address of
 * metrics/listen (127.0.0.1:9464 unless configured; empty turns both off). The HTTP threads hand each request to the
 * event loop, where the counters live, so counting needs no lock and a hung loop answers no scrape.
 */
class MetricsServer : public QObject
{
    Q_OBJECT
public:
    /** What an endpoint answers. */
    struct Reply
    {
        int status = 200;
        std::string contentType;
        std::string body;
    };

    /**
     * Reads the listen address from the core's configuration and, unless it is empty, starts counting the chain's
     * datasets. Made after the core and before its run(), so that it sees the processors before they are wired.
     */
    explicit MetricsServer(Core *core, QObject *parent = nullptr);
    ~MetricsServer() override;

    /** The configured address, empty when the endpoints are off. */
    QString listenAddress() const { return m_listen; }

    /** The chain's counters, null when the endpoints are off; a stand-in datasource may be connected to them. */
    ChainMetrics *chain() const { return m_chain; }

    /** The port it listens on, 0 when it does not. */
    int port() const { return m_port; }

    /** The body of /metrics; on the event loop thread. */
    Reply metrics() const;

    /** The answer of /health; on the event loop thread. */
    Reply health() const;

    /** How long an HTTP request waits for the event loop before it answers 503. */
    void setLoopTimeout(int milliseconds) { m_loopTimeout = milliseconds; }

public slots:
    /** After the core's run(): counts what the datasources send and starts listening. */
    void start();

private:
    static int handleRequest(struct mg_connection *connection, void *endpoint);
    static int logMessage(const struct mg_connection *connection, const char *message);
    Reply answer(bool health) const;
    void addChain(std::vector<prometheus::MetricFamily> &families) const;

    Core *m_core;
    ChainMetrics *m_chain = nullptr;
    QString m_listen;
    int m_port = 0;
    int m_loopTimeout = 5000;
    mg_context *m_context = nullptr;
    std::atomic<bool> m_stopping { false };
};

#endif
