#include "replayrecording.h"

#include "datasetcodec.h"
#include "machinefleet.h"

#include <QFile>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

namespace {

// The seven values a machine that reports only its main counters sends: the feed speed, the working time and what
// the operating data is made of, so that the mapper has all it needs and warns about nothing.
const char *const KeptValues[] = { "FeedSpeed", "AbsoluteWorkingTime", "AbsolutePowerPresentTime",
    "AbsoluteProductionTime", "AbsoluteProductionWithoutWorkpieceTime", "AbsolutePiecesOut", "AbsoluteLength" };

void keepSevenValues(WwState &state)
{
    if (!state.Values)
        return;
    WwStateValues::visitFields([&](const char *name, auto member) {
        auto &field = (*state.Values).*member;
        if constexpr (std::is_same_v<std::decay_t<decltype(field)>, std::optional<std::decay_t<decltype(*field)>>>) {
            if (std::none_of(std::begin(KeptValues), std::end(KeptValues),
                    [name](const char *kept) { return std::strcmp(kept, name) == 0; }))
                field.reset();
        }
    });
}

} // namespace

bool ReplayRecording::write(const QString &path, int lines)
{
    MachineFleet fleet(Machines, QStringLiteral("replay"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < lines; ++i) {
        const int index = i % Machines;
        const bool changed = (i / Machines) % 10 == 0;
        QDateTime timestamp;
        WwState state = qvariant_cast<WwState>(fleet.next(index, changed, timestamp));
        keepSevenValues(state);
        QByteArray line
            = DatasetCodec::encodeLine(timestamp, fleet.machineName(index), fleet.source(), QVariant::fromValue(state));
        line.append('\n');
        if (file.write(line) != line.size())
            return false;
    }
    return true;
}
