#ifndef ORVIX_BENCHLOGGING_H
#define ORVIX_BENCHLOGGING_H

/**
 * Keeps the benchmark output readable: debug and info are filtered as the service filters debug by default, and
 * a quiet handler replaces the console and file sinks, counting the warnings the chain still produces.
 */
namespace BenchLogging {

/** Filters debug and info of every category. Called before Core exists, so that it prints no start-up lines. */
void filterDebugAndInfo();

/** Installs the quiet handler in place of whatever handler is installed now. */
void silence();

/** The warnings and worse received by the quiet handler since the process started. */
int warnings();

} // namespace BenchLogging

#endif
