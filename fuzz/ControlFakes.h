// Link-time fakes of the four subsystems the control commands start and stop (SmartLinkSelection,
// SlaTcpSocketMonitor, VoipStateMonitor, SlaStatsImpl), for the control-socket fuzzer and unit
// test: fuzz/ControlFakes.cpp defines their members in place of the real ones (whose sources are
// not linked), starts no thread and opens no socket, and records each call in order as a short
// text such as "sls.threadStop" or "stats.enableSlaVoipState(1,10123)".
#pragma once

#include <string>
#include <vector>

namespace mlbd {
class ScopedCommandRecorder;
}

namespace mlbd_fakes {

// The calls so far. With a recorder attached, the command lines it took in between are merged
// in at their place, shortened to "ipt <arguments>" or "ip <arguments>" (a leading
// "-w -t mangle " dropped).
std::vector<std::string>& controlCalls();
// Forgets the calls and the attached recorder's lines.
void clearControlCalls();
void attachRecorder(mlbd::ScopedCommandRecorder* recorder);

}  // namespace mlbd_fakes
