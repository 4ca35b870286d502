#include "core.h"
#include "idatasource.h"
#include "logcapture.h"
#include "metricsserver.h"
#include "statev1.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <civetweb.h>

#include <future>
#include <memory>

namespace {

struct Response
{
    int status = 0;
    QByteArray contentType;
    QByteArray body;
};

/** One GET with civetweb's client, in a thread of its own: the server's answer needs this thread's event loop. */
Response get(int port, const char *path)
{
    auto future = std::async(std::launch::async, [port, path] {
        Response response;
        char error[256] = {};
        mg_connection *connection = mg_download("127.0.0.1", port, 0, error, sizeof(error),
            "GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", path);
        if (!connection)
            return response;
        const mg_response_info *info = mg_get_response_info(connection);
        response.status = info->status_code;
        const char *type = mg_get_header(connection, "Content-Type");
        response.contentType = type ? QByteArray(type) : QByteArray();
        char buffer[4096];
        int size = 0;
        while ((size = mg_read(connection, buffer, sizeof(buffer))) > 0)
            response.body.append(buffer, size);
        mg_close_connection(connection);
        return response;
    });
    while (future.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return future.get();
}

QByteArray line(const QByteArray &body, const QByteArray &start)
{
    for (const QByteArray &candidate : body.split('\n')) {
        if (candidate.startsWith(start))
            return candidate;
    }
    return QByteArray();
}

} // namespace

class tst_MetricsServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void emptyListenTurnsTheEndpointsOff();
    void servesTheMetricsInPrometheusTextFormat();
    void outputPassesPromtool();
    void pluginsReportThroughTheOptionalInterface();
    void healthIsUpWhileEveryConnectionIs();
    void healthNamesWhatIsDown();
    void healthWaitsForAConnectionsFirstBackOff();
    void aBlockedEventLoopAnswers503();
    void aPortInUseIsAWarningAndTheServiceRunsOn();
    void aBadAddressIsAWarningAndTheServiceRunsOn();
    void unknownPathsAre404();
    void prometheusScrapesAMachinesState();
    void theExampleAlertIsAValidRule();

private:
    MetricsServer *startService(const QByteArray &ini, const QStringList &plugins, LogCapture *log = nullptr);
    void send(const QString &machine, const QVariant &data);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Core> m_core;
    quint16 m_port = 0;
};

void tst_MetricsServer::initTestCase()
{
    mg_init_library(0);
}

void tst_MetricsServer::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_port = TestSupport::freePort();
}

void tst_MetricsServer::cleanup()
{
    m_core.reset();
    m_dir.reset();
    qunsetenv("ORVIX_PLUGINPATH");
}

MetricsServer *tst_MetricsServer::startService(const QByteArray &ini, const QStringList &plugins, LogCapture *log)
{
    const QString folder = m_dir->filePath(QStringLiteral("plugins"));
    for (const QString &plugin : plugins) {
        if (!TestSupport::copyTestPlugin(plugin, QStringLiteral("%1/lib%2.so").arg(folder, plugin)))
            return nullptr;
    }
    qputenv("ORVIX_PLUGINPATH", folder.toUtf8());
    TestSupport::writeFile(
        m_dir->filePath(QStringLiteral("orvix.ini")), "[limit]\nwaitTime=60000\nkeepAliveTime=600000\n" + ini);
    m_core = std::make_unique<Core>(false, nullptr, m_dir->filePath(QStringLiteral("orvix.ini")),
        m_dir->filePath(QStringLiteral("orvix.log")), m_dir->filePath(QStringLiteral("orvix.lastlog")));
    // Core puts in its own message handler; the capture takes over again.
    if (log)
        log->reinstall();
    auto *server = new MetricsServer(m_core.get(), m_core.get());
    m_core->run();
    server->start();
    return server;
}

void tst_MetricsServer::send(const QString &machine, const QVariant &data)
{
    auto *source = dynamic_cast<QObject *>(m_core->datasources().first());
    QVERIFY(QMetaObject::invokeMethod(source, "send", Q_ARG(QDateTime, QDateTime::currentDateTimeUtc()),
        Q_ARG(QString, machine), Q_ARG(QString, QStringLiteral("src")), Q_ARG(QVariant, data)));
}

void tst_MetricsServer::emptyListenTurnsTheEndpointsOff()
{
    LogCapture log(QStringLiteral("metrics"));
    log.start();
    MetricsServer *server = startService("[metrics]\nlisten=\n", { QStringLiteral("testsource") }, &log);
    QVERIFY(server);
    QCOMPARE(server->listenAddress(), QString());
    QCOMPARE(server->port(), 0);
    QVERIFY(log.lines().contains(
        QStringLiteral("INFO metrics: \"/metrics and /health are off: metrics/listen is empty\"")));
}

void tst_MetricsServer::servesTheMetricsInPrometheusTextFormat()
{
    LogCapture log(QStringLiteral("metrics"));
    log.start();
    const QByteArray listen = "127.0.0.1:" + QByteArray::number(m_port);
    MetricsServer *server = startService(
        "[metrics]\nlisten=" + listen + "\n", { QStringLiteral("testsource"), QStringLiteral("testtarget") }, &log);
    QVERIFY(server);
    QCOMPARE(server->port(), int(m_port));
    QVERIFY(log.lines().contains(
        QStringLiteral("INFO metrics: \"Serving /metrics and /health on %1\"").arg(QString::fromLatin1(listen))));
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));

    const Response response = get(m_port, "/metrics");
    QCOMPARE(response.status, 200);
    QCOMPARE(response.contentType, QByteArray("text/plain; version=0.0.4; charset=utf-8"));
    const QByteArray &body = response.body;
    QCOMPARE(line(body, "orvix_machine_state{"), QByteArray("orvix_machine_state{machine=\"m1\"} 2"));
    QCOMPARE(line(body, "orvix_machine_datasets_total{"), QByteArray("orvix_machine_datasets_total{machine=\"m1\"} 2"));
    QVERIFY(line(body, "orvix_machine_last_dataset_age_seconds{machine=\"m1\"} ").size() > 0);
    QCOMPARE(line(body, "orvix_chain_datasets_total{"), QByteArray("orvix_chain_datasets_total{type=\"StateV1\"} 2"));
    QCOMPARE(line(body, "orvix_target_datasets_total{"),
        QByteArray("orvix_target_datasets_total{target=\"testtarget\",type=\"StateV1\"} 1"));
    QCOMPARE(line(body, "orvix_processor_datasets_dropped_total{processor=\"Limit\"}"),
        QByteArray("orvix_processor_datasets_dropped_total{processor=\"Limit\"} 1"));
    QVERIFY(line(body, "orvix_build_info{").startsWith("orvix_build_info{version=\""));
    QVERIFY(!line(body, "orvix_uptime_seconds ").isEmpty());
    QVERIFY(!line(body, "process_resident_memory_bytes ").isEmpty());
    QVERIFY(!line(body, "process_cpu_seconds_total ").isEmpty());
    QVERIFY(!line(body, "process_open_fds ").isEmpty());
    QVERIFY(!line(body, "process_start_time_seconds ").isEmpty());
    // Limit's two warnings about a missing configuration are not there; the counter is.
    QVERIFY(body.contains("# TYPE orvix_log_warnings_total counter"));
}

void tst_MetricsServer::outputPassesPromtool()
{
    const QString promtool = QStandardPaths::findExecutable(QStringLiteral("promtool"));
    QVERIFY2(!promtool.isEmpty(), "promtool (Debian's prometheus package) is installed by tools/install-deps.sh");
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget"), QStringLiteral("providersource") }));
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    send(QStringLiteral("m \"2\"\\"), QVariant::fromValue(StateV1 { StateV1::Error }));
    qCWarning(QLoggingCategory("metricstest")) << "one warning";

    const Response response = get(m_port, "/metrics");
    QCOMPARE(response.status, 200);
    QProcess check;
    check.start(promtool, { QStringLiteral("check"), QStringLiteral("metrics") });
    check.write(response.body);
    check.closeWriteChannel();
    QVERIFY(check.waitForFinished(30000));
    const QByteArray said = check.readAllStandardOutput() + check.readAllStandardError();
    QVERIFY2(check.exitCode() == 0 && said.trimmed().isEmpty(), said.constData());
    QVERIFY(response.body.contains("orvix_machine_state{machine=\"m \\\"2\\\"\\\\\"} 7"));
    QVERIFY(response.body.contains("orvix_log_warnings_total{category=\"metricstest\"} 1"));
}

void tst_MetricsServer::pluginsReportThroughTheOptionalInterface()
{
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("providersource"), QStringLiteral("testtarget") }));
    const QByteArray body = get(m_port, "/metrics").body;
    QCOMPARE(line(body, "orvix_connection_up{"),
        QByteArray("orvix_connection_up{plugin=\"providersource\",connection=\"tcp://broker:1883\"} 1"));
    QCOMPARE(line(body, "orvix_connection_reconnects_total{"),
        QByteArray("orvix_connection_reconnects_total{plugin=\"providersource\",connection=\"tcp://broker:1883\"} 3"));
    QCOMPARE(line(body, "orvix_providersource_spool_records{"),
        QByteArray("orvix_providersource_spool_records{connection=\"tcp://broker:1883\"} 42"));
    QVERIFY(body.contains("# HELP orvix_providersource_spool_records Records waiting in the spool.\n"));
    QVERIFY(body.contains("# TYPE orvix_providersource_spool_records gauge\n"));
}

void tst_MetricsServer::healthIsUpWhileEveryConnectionIs()
{
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("providersource"), QStringLiteral("testtarget") }));
    const Response response = get(m_port, "/health");
    QCOMPARE(response.status, 200);
    QCOMPARE(response.contentType, QByteArray("application/json"));
    QCOMPARE(response.body, QByteArray("{\"status\":\"up\"}\n"));
}

void tst_MetricsServer::healthNamesWhatIsDown()
{
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n[providersource]\nup=false\n",
        { QStringLiteral("providersource") }));
    const Response response = get(m_port, "/health");
    QCOMPARE(response.status, 503);
    QCOMPARE(response.body,
        QByteArray("{\"down\":[\"no target\",\"providersource tcp://broker:1883\"],\"status\":\"down\"}\n"));
}

void tst_MetricsServer::healthWaitsForAConnectionsFirstBackOff()
{
    QVERIFY(startService(
        "[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n[providersource]\nup=false\nstarting=true\n",
        { QStringLiteral("providersource"), QStringLiteral("testtarget") }));
    QCOMPARE(get(m_port, "/health").status, 200);
}

void tst_MetricsServer::aBlockedEventLoopAnswers503()
{
    MetricsServer *server = startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget") });
    QVERIFY(server);
    server->setLoopTimeout(200);
    // The request is made while this thread, the event loop's, does not turn it.
    const quint16 port = m_port;
    auto health = std::async(std::launch::async, [port] {
        Response response;
        char error[256] = {};
        mg_connection *connection = mg_download("127.0.0.1", port, 0, error, sizeof(error),
            "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
        if (!connection)
            return response;
        response.status = mg_get_response_info(connection)->status_code;
        char buffer[512];
        int size = 0;
        while ((size = mg_read(connection, buffer, sizeof(buffer))) > 0)
            response.body.append(buffer, size);
        mg_close_connection(connection);
        return response;
    });
    QVERIFY(health.wait_for(std::chrono::seconds(5)) == std::future_status::ready);
    const Response response = health.get();
    QCOMPARE(response.status, 503);
    QCOMPARE(response.body, QByteArray("{\"status\":\"down\",\"down\":[\"event loop\"]}\n"));
    // Once the loop turns again, it answers.
    QCOMPARE(get(m_port, "/health").status, 200);
}

void tst_MetricsServer::aPortInUseIsAWarningAndTheServiceRunsOn()
{
    MetricsServer *first = startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget") });
    QVERIFY(first);
    QCOMPARE(first->port(), int(m_port));

    LogCapture log(QStringLiteral("metrics"));
    log.start();
    auto *second = new MetricsServer(m_core.get(), m_core.get());
    second->start();
    QCOMPARE(second->port(), 0);
    const QStringList warnings = log.lines().filter(QStringLiteral("WARNING metrics:"));
    QCOMPARE(warnings.size(), 1);
    QVERIFY2(warnings.first().startsWith(QStringLiteral("WARNING metrics: \"Cannot serve /metrics and /health on "
                                                        "127.0.0.1:%1: ")
                                             .arg(m_port)),
        qPrintable(warnings.first()));
    QVERIFY(warnings.first().endsWith(QStringLiteral(". The service runs on without them.\"")));
    // The chain goes on, and so does the first server.
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Setup }));
    QCOMPARE(line(get(m_port, "/metrics").body, "orvix_machine_state{"),
        QByteArray("orvix_machine_state{machine=\"m1\"} 3"));
}

void tst_MetricsServer::aBadAddressIsAWarningAndTheServiceRunsOn()
{
    LogCapture log(QStringLiteral("metrics"));
    log.start();
    MetricsServer *server = startService("[metrics]\nlisten=no-such-address:port\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget") }, &log);
    QVERIFY(server);
    QCOMPARE(server->port(), 0);
    const QStringList warnings = log.lines().filter(QStringLiteral("WARNING metrics:"));
    QCOMPARE(warnings.size(), 1);
    QVERIFY2(warnings.first().startsWith(
                 QStringLiteral("WARNING metrics: \"Cannot serve /metrics and /health on no-such-address:port: ")),
        qPrintable(warnings.first()));
    QCOMPARE(m_core->datasources().size(), 1);
}

void tst_MetricsServer::unknownPathsAre404()
{
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget") }));
    QCOMPARE(get(m_port, "/metricsx").status, 404);
    QCOMPARE(get(m_port, "/").status, 404);
}

void tst_MetricsServer::prometheusScrapesAMachinesState()
{
    const QString prometheus = QStandardPaths::findExecutable(QStringLiteral("prometheus"));
    QVERIFY2(!prometheus.isEmpty(), "prometheus (Debian's package) is installed by tools/install-deps.sh");
    QVERIFY(startService("[metrics]\nlisten=127.0.0.1:" + QByteArray::number(m_port) + "\n",
        { QStringLiteral("testsource"), QStringLiteral("testtarget") }));
    send(QStringLiteral("saw 1"), QVariant::fromValue(StateV1 { StateV1::Waiting }));

    const quint16 apiPort = TestSupport::freePort();
    const QString config = m_dir->filePath(QStringLiteral("prometheus.yml"));
    QVERIFY(TestSupport::writeFile(config,
        "global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\nscrape_configs:\n  - job_name: orvix\n"
        "    static_configs:\n      - targets: ['127.0.0.1:"
            + QByteArray::number(m_port) + "']\n"));
    QProcess server;
    server.setProcessChannelMode(QProcess::MergedChannels);
    server.start(prometheus,
        { QStringLiteral("--config.file=") + config,
            QStringLiteral("--storage.tsdb.path=") + m_dir->filePath(QStringLiteral("tsdb")),
            QStringLiteral("--web.listen-address=127.0.0.1:%1").arg(apiPort) });
    QVERIFY(server.waitForStarted());

    const QByteArray query = "/api/v1/query?query=orvix_machine_state%7Bmachine%3D%22saw%201%22%7D";
    QJsonArray result;
    QElapsedTimer waited;
    waited.start();
    while (result.isEmpty() && waited.elapsed() < 60000 && server.state() == QProcess::Running) {
        QTest::qWait(250);
        const Response response = get(apiPort, query.constData());
        if (response.status != 200)
            continue;
        result = QJsonDocument::fromJson(response.body)
                     .object()
                     .value(QStringLiteral("data"))
                     .toObject()
                     .value(QStringLiteral("result"))
                     .toArray();
    }
    server.terminate();
    server.waitForFinished(10000);
    QVERIFY2(!result.isEmpty(), server.readAll().right(2000).constData());
    const QJsonObject sample = result.first().toObject();
    QCOMPARE(sample.value(QStringLiteral("metric")).toObject().value(QStringLiteral("job")).toString(),
        QStringLiteral("orvix"));
    QCOMPARE(sample.value(QStringLiteral("value")).toArray().at(1).toString(), QStringLiteral("6"));
}

void tst_MetricsServer::theExampleAlertIsAValidRule()
{
    const QString promtool = QStandardPaths::findExecutable(QStringLiteral("promtool"));
    QVERIFY2(!promtool.isEmpty(), "promtool (Debian's prometheus package) is installed by tools/install-deps.sh");
    QProcess check;
    check.setProcessChannelMode(QProcess::MergedChannels);
    check.start(promtool,
        { QStringLiteral("check"), QStringLiteral("rules"),
            QStringLiteral(ORVIX_SOURCE_DIR "/dist/orvix-alerts.yml") });
    QVERIFY(check.waitForFinished(30000));
    const QByteArray said = check.readAll();
    QVERIFY2(check.exitCode() == 0 && said.contains("SUCCESS: 1 rules found"), said.constData());
}

QTEST_GUILESS_MAIN(tst_MetricsServer)
#include "tst_metricsserver.moc"
