#ifndef ORVIX_WORKINGDAY_H
#define ORVIX_WORKINGDAY_H

#include "wwbaseeventtype.h"

#include <QVector>

#include <random>

/**
 * The rules of a simulated machine's working day: its stages and how long it stays in each, the chances of going
 * offline, of errors and warnings, the kinds of machine simulated and the messages they raise.
 */
namespace WorkingDay {

// The stages of a machine's day. A machine stays in one for a number of ticks drawn from its rule (ruleOf).
enum class Phase { Off, PoweringUp, Ready, Setup, Working, WaitLoad, WaitUnload, Error, EnergySaving, Offline };

struct Transition
{
    Phase to;
    int weight;
};

struct PhaseRule
{
    Phase phase;
    int minTicks;
    int maxTicks;
    QVector<Transition> next;
};

/** The rule of a stage. */
const PhaseRule &ruleOf(Phase phase);

constexpr double OfflineChance = 0.004;
constexpr double ErrorChance = 0.006;
constexpr double WarningChance = 0.004;
constexpr double PieceChance = 0.6;

// What a machine of one kind looks like: its nameplate, feed speed range (m/min) and piece lengths (mm).
struct Kind
{
    const char *deviceClass;
    const char *model;
    const char *software;
    double feedMin;
    double feedMax;
    int pieceMin;
    int pieceMax;
};

/** The kind of the machine with this index; the kinds take turns. */
const Kind &kindOf(int index);

// A message of the machine: its id, English text and the place in the machine it comes from.
struct Message
{
    const char *id;
    const char *text;
    const char *path;
    qint32 category;
};

/** One of the alarms, drawn at random. */
const Message &drawAlarm(std::mt19937_64 &random);
/** One of the warnings, drawn at random. */
const Message &drawWarning(std::mt19937_64 &random);

/** A number from 0 to bound - 1. */
quint64 below(std::mt19937_64 &random, quint64 bound);
/** A number from low to high, both included. */
int between(std::mt19937_64 &random, int low, int high);
/** A number from 0 up to, not including, 1. */
double unit(std::mt19937_64 &random);
/** True with the given probability. */
bool chance(std::mt19937_64 &random, double probability);
/** The event that raises the message, or withdraws it. */
WwBaseEventType messageEvent(const Message &message, bool withdrawn);

} // namespace WorkingDay

#endif
