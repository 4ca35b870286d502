#ifndef ORVIX_PROCESSMEMORY_H
#define ORVIX_PROCESSMEMORY_H

#include <QtGlobal>

/** What the process holds in memory, for the memory-per-machine figures. */
namespace ProcessMemory {

/** The resident set size in bytes, from /proc/self/statm; 0 when it cannot be read. */
qint64 residentBytes();

/** The bytes the C library's allocator has handed out and not got back (mallinfo2). */
qint64 heapBytes();

} // namespace ProcessMemory

#endif
