#include "metricsserver.h"
#include "metricslogging.h"

#include "chainmetrics.h"
#include "core.h"
#include "idatasource.h"
#include "imetricsprovider.h"
#include "itarget.h"
#include "messagehandler.h"
#include "processstats.h"
#include "settingstable.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMetaType>

#include <civetweb.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <future>
#include <map>
#include <sstream>

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

/** What the group metrics says. */
struct Options
{
    QString listen;
};

const SettingsTable<Options> &settings()
{
    static const SettingsTable<Options> table {
        SettingKey::trimmed("listen", &Options::listen, "127.0.0.1:9464",
            "Address of the HTTP endpoints /metrics and /health, as address:port, [IPv6]:port or port alone; empty "
            "turns both off."),
    };
    return table;
}

const char *const TextFormat = "text/plain; version=0.0.4; charset=utf-8";

MetricFamily family(const char *name, const char *help, MetricType type)
{
    MetricFamily result;
    result.name = name;
    result.help = help;
    result.type = type;
    return result;
}

void sample(MetricFamily &family, double value, Labels labels = {})
{
    ClientMetric metric;
    metric.label = std::move(labels);
    if (family.type == MetricType::Counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    family.metric.push_back(std::move(metric));
}

std::string text(const QString &value)
{
    return value.toStdString();
}

struct Plugin
{
    QString name;
    QObject *object;
};

QList<Plugin> pluginsOf(const Core &core)
{
    QList<Plugin> plugins;
    for (IDatasource *datasource : core.datasources())
        plugins.append({ datasource->name(), dynamic_cast<QObject *>(datasource) });
    for (ITarget *target : core.targets())
        plugins.append({ target->name(), dynamic_cast<QObject *>(target) });
    return plugins;
}

} // namespace

MetricsServer::MetricsServer(Core *core, QObject *parent)
    : QObject(parent)
    , m_core(core)
{
    Options options;
    settings().read(core->config().value(QStringLiteral("metrics")).toMap(), lcMetrics(), &options);
    m_listen = options.listen;
    if (m_listen.isEmpty())
        return;
    m_chain = new ChainMetrics(this);
    m_chain->attachProcessors(core->processors());
}

MetricsServer::~MetricsServer()
{
    m_stopping = true;
    if (m_context)
        mg_stop(m_context);
}

void MetricsServer::start()
{
    if (!m_chain) {
        qCInfo(lcMetrics) << QStringLiteral("/metrics and /health are off: metrics/listen is empty");
        return;
    }
    if (m_context)
        return;
    m_chain->attachPipeline(m_core->datasources());

    static const unsigned initialised = mg_init_library(0);
    Q_UNUSED(initialised)
    const QByteArray address = m_listen.toUtf8();
    const char *options[]
        = { "listening_ports", address.constData(), "num_threads", "2", "request_timeout_ms", "10000", nullptr };
    mg_callbacks callbacks {};
    callbacks.log_message = &MetricsServer::logMessage;
    mg_init_data init {};
    init.callbacks = &callbacks;
    init.user_data = this;
    init.configuration_options = options;
    char error[256] = {};
    mg_error_data errorData {};
    errorData.text = error;
    errorData.text_buffer_size = sizeof(error);
#if CIVETWEB_VERSION_MAJOR == 1 && CIVETWEB_VERSION_MINOR < 16
    // Up to 1.15 (Debian 12) civetweb writes the error code through a pointer; from 1.16 (Debian 13) it holds it.
    unsigned code = 0;
    errorData.code = &code;
#endif
    m_context = mg_start2(&init, &errorData);
    if (!m_context) {
        qCWarning(lcMetrics) << QStringLiteral("Cannot serve /metrics and /health on %1: %2. The service runs on "
                                               "without them.")
                                    .arg(m_listen, QString::fromUtf8(error).trimmed());
        return;
    }
    mg_set_request_handler(m_context, "/metrics", &MetricsServer::handleRequest, this);
    mg_set_request_handler(m_context, "/health", &MetricsServer::handleRequest, this);
    mg_server_port port {};
    if (mg_get_server_ports(m_context, 1, &port) == 1)
        m_port = port.port;
    qCInfo(lcMetrics) << QStringLiteral("Serving /metrics and /health on %1").arg(m_listen);
}

int MetricsServer::logMessage(const mg_connection *, const char *message)
{
    // Failing to start is reported once, with the reason, by start(); what the HTTP threads report later is kept.
    qCDebug(lcMetrics) << QStringLiteral("HTTP server: %1").arg(QString::fromUtf8(message).trimmed());
    return 1;
}

int MetricsServer::handleRequest(mg_connection *connection, void *server)
{
    const mg_request_info *request = mg_get_request_info(connection);
    const bool health = qstrcmp(request->local_uri, "/health") == 0;
    if (!health && qstrcmp(request->local_uri, "/metrics") != 0) {
        mg_send_http_error(connection, 404, "%s", "Not found\n");
        return 404;
    }
    if (qstrcmp(request->request_method, "GET") != 0 && qstrcmp(request->request_method, "HEAD") != 0) {
        mg_send_http_error(connection, 405, "%s", "Only GET and HEAD\n");
        return 405;
    }
    const Reply reply = static_cast<MetricsServer *>(server)->answer(health);
    mg_response_header_start(connection, reply.status);
    mg_response_header_add(connection, "Content-Type", reply.contentType.c_str(), -1);
    mg_response_header_add(connection, "Content-Length", std::to_string(reply.body.size()).c_str(), -1);
    mg_response_header_add(connection, "Cache-Control", "no-store", -1);
    mg_response_header_send(connection);
    if (qstrcmp(request->request_method, "HEAD") != 0)
        mg_write(connection, reply.body.data(), reply.body.size());
    return reply.status;
}

MetricsServer::Reply MetricsServer::answer(bool health) const
{
    // The counters belong to the event loop: the request waits for its turn there.
    auto promise = std::make_shared<std::promise<Reply>>();
    std::future<Reply> future = promise->get_future();
    QMetaObject::invokeMethod(
        const_cast<MetricsServer *>(this),
        [this, promise, health] { promise->set_value(health ? this->health() : metrics()); }, Qt::QueuedConnection);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_loopTimeout);
    while (!m_stopping && std::chrono::steady_clock::now() < deadline) {
        if (future.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready)
            continue;
        try {
            return future.get();
        } catch (const std::future_error &) {
            break;
        }
    }
    Reply reply;
    reply.status = 503;
    if (health) {
        reply.contentType = "application/json";
        reply.body = "{\"status\":\"down\",\"down\":[\"event loop\"]}\n";
    } else {
        reply.contentType = "text/plain; charset=utf-8";
        reply.body = "The service's event loop does not answer.\n";
    }
    return reply;
}

MetricsServer::Reply MetricsServer::metrics() const
{
    std::vector<MetricFamily> families;
    const ProcessStats process = ProcessStats::read();

    MetricFamily build
        = family("orvix_build_info", "The running orvix: its version and the Qt it runs on.", MetricType::Gauge);
    sample(build, 1, { { "version", ORVIX_VERSION }, { "qt", qVersion() } });
    families.push_back(std::move(build));
    MetricFamily uptime = family("orvix_uptime_seconds", "Seconds since the process started.", MetricType::Gauge);
    sample(uptime, QDateTime::currentMSecsSinceEpoch() / 1000.0 - process.startTime);
    families.push_back(std::move(uptime));

    if (m_chain)
        addChain(families);

    MetricFamily up = family("orvix_connection_up", "1 while a plugin's connection is up, else 0.", MetricType::Gauge);
    MetricFamily reconnects = family("orvix_connection_reconnects_total",
        "How often a plugin's connection was made again after it had been lost.", MetricType::Counter);
    std::map<QByteArray, MetricFamily> values;
    for (const Plugin &plugin : pluginsOf(*m_core)) {
        const auto *provider = qobject_cast<IMetricsProvider *>(plugin.object);
        if (!provider)
            continue;
        for (const IMetricsProvider::Connection &connection : provider->metricsConnections()) {
            const Labels labels { { "plugin", text(plugin.name) }, { "connection", text(connection.name) } };
            sample(up, connection.up ? 1 : 0, labels);
            sample(reconnects, static_cast<double>(connection.reconnects), labels);
        }
        for (const IMetricsProvider::Value &value : provider->metricsValues()) {
            auto it = values.find(value.name);
            if (it == values.end())
                it = values
                         .emplace(value.name,
                             family(value.name.constData(), value.help.constData(),
                                 value.counter ? MetricType::Counter : MetricType::Gauge))
                         .first;
            Labels labels;
            for (const auto &label : value.labels)
                labels.push_back({ label.first.toStdString(), text(label.second) });
            sample(it->second, value.value, std::move(labels));
        }
    }
    families.push_back(std::move(up));
    families.push_back(std::move(reconnects));
    for (auto &entry : values)
        families.push_back(std::move(entry.second));

    MetricFamily warnings
        = family("orvix_log_warnings_total", "Warnings logged, by logging category.", MetricType::Counter);
    const QHash<QByteArray, quint64> counts = MessageHandler::warningCounts();
    for (auto it = counts.constBegin(); it != counts.constEnd(); ++it)
        sample(warnings, static_cast<double>(it.value()), { { "category", it.key().toStdString() } });
    families.push_back(std::move(warnings));

    MetricFamily resident
        = family("process_resident_memory_bytes", "Resident memory size in bytes.", MetricType::Gauge);
    sample(resident, static_cast<double>(process.residentBytes));
    families.push_back(std::move(resident));
    MetricFamily cpu
        = family("process_cpu_seconds_total", "Total user and system CPU time spent in seconds.", MetricType::Counter);
    sample(cpu, process.cpuSeconds);
    families.push_back(std::move(cpu));
    MetricFamily fds = family("process_open_fds", "Number of open file descriptors.", MetricType::Gauge);
    sample(fds, static_cast<double>(process.openFiles));
    families.push_back(std::move(fds));
    MetricFamily maxFds = family("process_max_fds", "Maximum number of open file descriptors.", MetricType::Gauge);
    sample(maxFds, static_cast<double>(process.maxFiles));
    families.push_back(std::move(maxFds));
    MetricFamily start = family(
        "process_start_time_seconds", "Start time of the process since unix epoch in seconds.", MetricType::Gauge);
    sample(start, process.startTime);
    families.push_back(std::move(start));

    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, families);
    Reply reply;
    reply.contentType = TextFormat;
    reply.body = out.str();
    return reply;
}

void MetricsServer::addChain(std::vector<MetricFamily> &families) const
{
    const qint64 now = m_chain->clock().elapsed();
    MetricFamily state = family("orvix_machine_state",
        "A machine's last MM state code (1 offline, 2 producing, 3 setup, 4 standby, 5 working without workpiece, "
        "6 waiting, 7 error).",
        MetricType::Gauge);
    MetricFamily age = family("orvix_machine_last_dataset_age_seconds",
        "Seconds since a machine's last dataset entered the chain.", MetricType::Gauge);
    MetricFamily datasets
        = family("orvix_machine_datasets_total", "Datasets of a machine into the chain.", MetricType::Counter);
    const QHash<QString, ChainMetrics::Machine> &machines = m_chain->machines();
    for (auto it = machines.constBegin(); it != machines.constEnd(); ++it) {
        const Labels labels { { "machine", text(it.key()) } };
        if (it->state != 0)
            sample(state, it->state, labels);
        if (it->datasets > 0)
            sample(age, (now - it->lastDataset) / 1000.0, labels);
        sample(datasets, static_cast<double>(it->datasets), labels);
    }
    families.push_back(std::move(state));
    families.push_back(std::move(age));
    families.push_back(std::move(datasets));

    MetricFamily input
        = family("orvix_chain_datasets_total", "Datasets into the processor chain, by type.", MetricType::Counter);
    for (const ChainMetrics::TypeCount &entry : m_chain->input())
        sample(input, static_cast<double>(entry.count), { { "type", QMetaType::typeName(entry.type) } });
    families.push_back(std::move(input));

    MetricFamily output
        = family("orvix_target_datasets_total", "Datasets handed to each target, by type.", MetricType::Counter);
    for (ITarget *target : m_core->targets()) {
        const std::string name = text(target->name());
        for (const ChainMetrics::TypeCount &entry : m_chain->output())
            sample(output, static_cast<double>(entry.count),
                { { "target", name }, { "type", QMetaType::typeName(entry.type) } });
    }
    families.push_back(std::move(output));

    MetricFamily received
        = family("orvix_processor_datasets_received_total", "Datasets a processor received.", MetricType::Counter);
    MetricFamily emitted = family("orvix_processor_datasets_emitted_total",
        "Datasets a processor passed on, split ones counted one by one.", MetricType::Counter);
    MetricFamily dropped = family("orvix_processor_datasets_dropped_total",
        "Datasets a processor received and passed nothing on for.", MetricType::Counter);
    for (const ChainMetrics::Processor &processor : m_chain->processors()) {
        const Labels labels { { "processor", text(processor.name) } };
        sample(received, static_cast<double>(processor.received), labels);
        sample(emitted, static_cast<double>(processor.emitted), labels);
        sample(dropped, static_cast<double>(processor.dropped), labels);
    }
    families.push_back(std::move(received));
    families.push_back(std::move(emitted));
    families.push_back(std::move(dropped));
}

MetricsServer::Reply MetricsServer::health() const
{
    QJsonArray down;
    if (m_core->datasources().isEmpty())
        down.append(QStringLiteral("no datasource"));
    if (m_core->targets().isEmpty())
        down.append(QStringLiteral("no target"));
    for (const Plugin &plugin : pluginsOf(*m_core)) {
        const auto *provider = qobject_cast<IMetricsProvider *>(plugin.object);
        if (!provider)
            continue;
        for (const IMetricsProvider::Connection &connection : provider->metricsConnections()) {
            if (!connection.up && !connection.starting)
                down.append(QStringLiteral("%1 %2").arg(plugin.name, connection.name));
        }
    }
    QJsonObject body { { QStringLiteral("status"), down.isEmpty() ? QStringLiteral("up") : QStringLiteral("down") } };
    if (!down.isEmpty())
        body.insert(QStringLiteral("down"), down);
    Reply reply;
    reply.status = down.isEmpty() ? 200 : 503;
    reply.contentType = "application/json";
    reply.body = QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString() + "\n";
    return reply;
}
