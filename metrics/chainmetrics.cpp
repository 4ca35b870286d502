#include "chainmetrics.h"

#include "chaintap.h"
#include "idatasource.h"
#include "iprocessor.h"
#include "statev1.h"

namespace {

const char *const DataSignal = SIGNAL(dataReceived(QDateTime, QString, QString, QVariant));
const char *const ProcessedSignal = SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant));

} // namespace

ChainMetrics::ChainMetrics(QObject *parent)
    : QObject(parent)
    , m_stateType(qMetaTypeId<StateV1>())
{
    m_clock.start();
}

ChainMetrics::~ChainMetrics() = default;

void ChainMetrics::attachProcessors(const QList<IProcessor *> &processors)
{
    for (int i = 0; i < processors.size(); ++i) {
        auto *object = dynamic_cast<QObject *>(processors.at(i));
        auto *tap = new ChainTap(this, i);
        m_taps.append(tap);
        m_processorObjects.append(object);
        m_processors.push_back({ processors.at(i)->name() });
        // Ahead of the next processor, so that the tap notes what that one had emitted before it got the dataset.
        if (i + 1 < processors.size())
            connect(object, ProcessedSignal, tap, SLOT(emitted()));
        else
            connect(object, ProcessedSignal, tap, SLOT(delivered(QDateTime, QString, QString, QVariant)));
    }
}

void ChainMetrics::attachPipeline(const QList<IDatasource *> &datasources)
{
    for (IDatasource *datasource : datasources)
        connect(dynamic_cast<QObject *>(datasource), DataSignal, this,
            SLOT(received(QDateTime, QString, QString, QVariant)));
    // Behind the next processor: it has handled the dataset when these run.
    for (int i = 0; i + 1 < m_processorObjects.size(); ++i)
        connect(m_processorObjects.at(i), ProcessedSignal, m_taps.at(i), SLOT(handled()));
}

void ChainMetrics::received(const QDateTime &, const QString &machine, const QString &, const QVariant &data)
{
    count(m_input, data.userType());
    auto it = m_machines.find(machine);
    if (it == m_machines.end())
        it = m_machines.insert(machine, Machine());
    it->lastDataset = m_clock.elapsed();
    ++it->datasets;
    if (m_processors.empty())
        return;
    // The first processor emits only while it handles a dataset, so what it emitted since the last one is for this.
    Processor &first = m_processors.front();
    ++first.received;
    if (first.emitted == first.emittedBefore)
        ++first.dropped;
    first.emittedBefore = first.emitted;
}

void ChainMetrics::emittedBy(int processor)
{
    ++m_processors[processor].emitted;
    if (processor + 1 < static_cast<int>(m_processors.size())) {
        Processor &next = m_processors[processor + 1];
        ++next.received;
        next.emittedBefore = next.emitted;
    }
}

void ChainMetrics::handledBy(int processor)
{
    const Processor &entry = m_processors[processor];
    if (entry.emitted == entry.emittedBefore)
        ++m_processors[processor].dropped;
}

void ChainMetrics::delivered(const QString &machine, const QVariant &data)
{
    const int type = data.userType();
    count(m_output, type);
    if (type != m_stateType)
        return;
    auto it = m_machines.find(machine);
    if (it == m_machines.end())
        it = m_machines.insert(machine, Machine());
    it->state = static_cast<const StateV1 *>(data.constData())->state;
}

void ChainMetrics::count(std::vector<TypeCount> &counts, int type)
{
    // A handful of types: a short scan beats a hash.
    for (TypeCount &entry : counts) {
        if (entry.type == type) {
            ++entry.count;
            return;
        }
    }
    counts.push_back({ type, 1 });
}
