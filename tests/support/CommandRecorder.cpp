#include "support/CommandRecorder.h"

#include <atomic>

#include "iptables/execnetd.h"

namespace mlbd {
namespace {

std::atomic<ScopedCommandRecorder*> gRecorder{nullptr};

void recordCommand(const char* command) {
    if (ScopedCommandRecorder* recorder = gRecorder.load()) recorder->record(command);
}

}  // namespace

ScopedCommandRecorder::ScopedCommandRecorder() {
    gRecorder.store(this);
    setCommandSink(&recordCommand);
}

ScopedCommandRecorder::~ScopedCommandRecorder() {
    ScopedCommandRecorder* expected = this;
    if (gRecorder.compare_exchange_strong(expected, nullptr)) setCommandSink(nullptr);
}

const std::vector<std::string>& ScopedCommandRecorder::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void ScopedCommandRecorder::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

void ScopedCommandRecorder::record(const char* command) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(command);
}

}  // namespace mlbd
