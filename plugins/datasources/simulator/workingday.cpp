#include "workingday.h"

#include <iterator>

namespace WorkingDay {

namespace {

const QString Withdrawal = QStringLiteral("{OFF}");

// Indexed by Phase. Working ends only between two pieces; its errors come by chance at any tick (ErrorChance).
// Offline has no successor: the machine comes back in the stage it was interrupted in.
const PhaseRule Rules[] = {
    { Phase::Off, 3, 6, { { Phase::PoweringUp, 1 } } },
    { Phase::PoweringUp, 2, 4, { { Phase::Ready, 1 } } },
    { Phase::Ready, 2, 6,
        { { Phase::Working, 65 }, { Phase::Setup, 15 }, { Phase::EnergySaving, 12 }, { Phase::Off, 8 } } },
    { Phase::Setup, 3, 8, { { Phase::Working, 1 } } },
    { Phase::Working, 15, 45, { { Phase::WaitLoad, 40 }, { Phase::WaitUnload, 30 }, { Phase::Ready, 30 } } },
    { Phase::WaitLoad, 2, 6, { { Phase::Working, 1 } } },
    { Phase::WaitUnload, 2, 6, { { Phase::Working, 1 } } },
    { Phase::Error, 4, 10, { { Phase::Ready, 1 } } },
    { Phase::EnergySaving, 5, 15, { { Phase::Ready, 70 }, { Phase::Off, 30 } } },
    { Phase::Offline, 3, 8, {} },
};

const Kind Kinds[] = {
    { "Edge banding machine", "Edge 300", "4.2.1", 15, 25, 400, 2800 },
    { "Machining centre", "Router 1500", "2.8.0", 2, 8, 300, 2400 },
    { "Panel dividing saw", "Cut 430", "7.1.3", 20, 60, 300, 4200 },
    { "Throughfeed drilling machine", "Drill 40", "3.0.5", 10, 30, 250, 2000 },
};

// An error event becomes an alarm notification, a warning event a warning.
const Message Alarms[] = {
    { "1203", "Feed motor overload", "Feed/Motor", WwBaseEventType::Error },
    { "3105", "Workpiece jammed in the infeed", "Infeed", WwBaseEventType::Error },
    { "4711", "Safety door opened during operation", "Safety/Door1", WwBaseEventType::Error },
    { "5020", "Spindle temperature too high", "Unit1/Spindle", WwBaseEventType::Error },
};

const Message Warnings[] = {
    { "6001", "Dust extraction airflow low", "Extraction", WwBaseEventType::Warning },
    { "6002", "Lubrication level low", "Lubrication", WwBaseEventType::Warning },
    { "6010", "Tool life nearly reached", "Unit1/Tool", WwBaseEventType::Warning },
};

} // namespace

const PhaseRule &ruleOf(Phase phase)
{
    Q_ASSERT(Rules[int(phase)].phase == phase);
    return Rules[int(phase)];
}

const Kind &kindOf(int index)
{
    return Kinds[index % int(std::size(Kinds))];
}

const Message &drawAlarm(std::mt19937_64 &random)
{
    return Alarms[below(random, std::size(Alarms))];
}

const Message &drawWarning(std::mt19937_64 &random)
{
    return Warnings[below(random, std::size(Warnings))];
}

quint64 below(std::mt19937_64 &random, quint64 bound)
{
    return random() % bound;
}

int between(std::mt19937_64 &random, int low, int high)
{
    return low + int(below(random, quint64(high - low + 1)));
}

// Taken from the engine's raw output, which the standard fixes, so a seed gives the same run with every library.
double unit(std::mt19937_64 &random)
{
    return double(random() >> 11) * (1.0 / 9007199254740992.0);
}

bool chance(std::mt19937_64 &random, double probability)
{
    return unit(random) < probability;
}

WwBaseEventType messageEvent(const Message &message, bool withdrawn)
{
    WwBaseEventType record;
    const QString text = QString::fromUtf8(message.text);
    record.Message = withdrawn ? Withdrawal : text;
    record.Id = QString::fromLatin1(message.id);
    record.Category = message.category;
    // One language only: the mapper takes whichever text its hash yields first.
    record.Texts.insert(QStringLiteral("en"), text);
    record.Path = QString::fromLatin1(message.path).split(QLatin1Char('/'));
    return record;
}

} // namespace WorkingDay
