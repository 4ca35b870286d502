#ifndef ORVIX_REPLAYRECORDING_H
#define ORVIX_REPLAYRECORDING_H

#include <QString>

/**
 * A recording of WwState lines in the codec's form, as the replay datasource reads it: 1,000 machines with every flag
 * and seven values (those of the operating data among them), one machine after another; every tenth round of updates
 * changes, the other nine repeat each machine's previous record.
 */
namespace ReplayRecording {

constexpr int Machines = 1000;

/** Writes lines lines to path; false when the file can't be written. */
bool write(const QString &path, int lines);

} // namespace ReplayRecording

#endif
