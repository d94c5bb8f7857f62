/*
 * The one routine that runs a packet-filter or routing command line.
 *
 * The line is split at runs of blanks (spaces and tabs) into the program and its arguments, and
 * the program is started directly, without a shell: no quoting, globbing, redirection or command
 * substitution takes place, so a text taken from outside can at most become an argument of the
 * program named first. Standard error is merged into standard output, and both are drained and
 * discarded until the program ends.
 *
 * A program that has not ended (or whose output has not ended) within the time limit is killed
 * together with everything it started: each one runs in a process group of its own. The limit is
 * 30 s by default, long enough for "-w" to wait for the packet filter's lock.
 */
#pragma once

#include <stdint.h>

// Runs `command` and waits for it. Returns 0 when a process could be created for it, whatever
// the program then did (a program that cannot be executed or that fails counts as started, as
// it would under a shell), and -1 when no process could be created (or `command` is null).
// Logs "SEND SLA NDC COMMAND - PASS  <command>" at DEBUG or "... - FAIL  <command>" at ERROR.
// A run ended by the time limit still returns 0 and is logged at ERROR with its command line.
int execnetd(const char* command);

namespace mlbd {

// Where execnetd() sends command lines instead of running them. Null (the default, and always
// so in the daemon) runs them; tests and dry-run tools install a sink that records the lines
// (tests/support/CommandRecorder.h). A sink must be safe to call from any thread.
using CommandSink = void (*)(const char* command);
void setCommandSink(CommandSink sink);

constexpr uint32_t kDefaultCommandTimeLimitMs = 30000;
// The time limit of every later run, in milliseconds; 0 lets a run take as long as it takes.
// Any thread may set it.
void setCommandTimeLimitMs(uint32_t ms);
uint32_t commandTimeLimitMs();

}  // namespace mlbd
