#include "simulator.h"
#include "simulatorlogging.h"

#include "conditiondefinitionsv2.h"
#include "simulatedmachine.h"
#include "wwmodel.h"
#include "wwtypes.h"

#include <QLoggingCategory>
#include <QRandomGenerator>

#include <optional>
#include <type_traits>

namespace {

const QString Group = QStringLiteral("simulator");
const QString Source = QStringLiteral("simulator");
constexpr int MaxMachines = 1000;

template <typename T> bool isPresent(const T &)
{
    return true;
}

template <typename T> bool isPresent(const std::optional<T> &field)
{
    return field.has_value();
}

/** A definition for each present field of a record, as the mapping makes it: id, bare name, type, the rest default. */
template <typename Record>
void appendDefinitions(
    QList<ConditionDefinitionV2> &items, const QString &machine, const char *path, const Record &record)
{
    Record::visitFields([&](const char *name, auto member) {
        using Field = std::decay_t<decltype(record.*member)>;
        // The name under which the machine is known is no condition.
        if constexpr (std::is_same_v<Record, WwIdentification>) {
            if (qstrcmp(name, "Name") == 0)
                return;
        }
        if (!isPresent(record.*member))
            return;
        items.append(orvix::fieldDefinition<Field>(machine, path, name));
    });
}

} // namespace

ConditionDefinitionsV2 Simulator::definitionsOf(
    const QString &machine, const QDateTime &timestamp, const WwIdentification &nameplate, const WwState &state)
{
    ConditionDefinitionsV2 definitions;
    definitions.timestamp = timestamp;
    appendDefinitions(definitions.items, machine, WwModel::IdentificationPath, nameplate);
    if (state.Flags)
        appendDefinitions(definitions.items, machine, WwModel::FlagsPath, *state.Flags);
    if (state.Values)
        appendDefinitions(definitions.items, machine, WwModel::ValuesPath, *state.Values);
    return definitions;
}

const SettingsTable<Simulator::Options> &Simulator::settings()
{
    static const SettingsTable<Options> table {
        SettingKey::whole(
            "machines", &Options::machines, "2", 1, MaxMachines, "Number of simulated machines, from 1 to 1000."),
        SettingKey::string("prefix", &Options::prefix, "sim", "Machine names: this prefix followed by 1, 2, 3 ..."),
        SettingKey::duration("interval", &Options::interval, "1000", 1, std::numeric_limits<int>::max(),
            "Milliseconds between two state records of a machine; each moves its day on by as much."),
        SettingKey::whole("seed", &Options::seed, "", 0, SettingKey::Unbounded,
            "A whole number makes every run the same; empty draws a new seed at each start and logs it.")
            .emptyMeans("a new one"),
    };
    return table;
}

Simulator::Simulator(QObject *parent)
    : QObject(parent)
    , m_clock([] { return QDateTime::currentDateTimeUtc(); })
{
    connect(&m_timer, &QTimer::timeout, this, &Simulator::tick);
}

Simulator::~Simulator() = default;

bool Simulator::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    settings().read(config.value(Group).toMap(), lcSimulator(), &options);
    const int machines = options.machines;
    const QString &prefix = options.prefix;
    m_interval = options.interval;
    m_seed = options.seed ? *options.seed : QRandomGenerator::global()->generate64();

    m_machines.clear();
    for (int index = 0; index < machines; ++index)
        m_machines.push_back(std::make_unique<SimulatedMachine>(prefix + QString::number(index + 1), index, m_seed));

    QStringList names;
    for (const std::unique_ptr<SimulatedMachine> &machine : m_machines)
        names.append(machine->name);
    qCInfo(lcSimulator) << QStringLiteral("Simulating %1 every %2 ms with seed %3")
                               .arg(names.size() <= 3 ? names.join(QStringLiteral(", "))
                                                      : QStringLiteral("%1 to %2").arg(names.first(), names.last()))
                               .arg(m_interval)
                               .arg(m_seed);
    m_timer.start(m_interval);
    return true;
}

QString Simulator::name() const
{
    return QStringLiteral("simulator");
}

void Simulator::setClock(std::function<QDateTime()> clock)
{
    m_clock = std::move(clock);
}

void Simulator::tick()
{
    const QDateTime now = m_clock();
    QVector<WwBaseEventType> events;
    for (const std::unique_ptr<SimulatedMachine> &machine : m_machines) {
        events.clear();
        // The first round shows each machine as it is found; from then on each round moves it on.
        if (machine->started)
            machine->advance(quint64(m_interval), &events);
        else
            emit dataReceived(now, machine->name, Source,
                QVariant::fromValue(definitionsOf(machine->name, now, machine->identification, machine->state())));
        machine->started = true;
        if (machine->identificationDue) {
            emit dataReceived(now, machine->name, Source, QVariant::fromValue(machine->identification));
            machine->identificationDue = false;
        }
        // Events first: the state that follows them shows their alarm and warning flags already.
        for (const WwBaseEventType &record : qAsConst(events))
            emit dataReceived(now, machine->name, Source, QVariant::fromValue(record));
        emit dataReceived(now, machine->name, Source, QVariant::fromValue(machine->state()));
    }
}
