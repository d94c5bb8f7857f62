/*
 * Per-interface link statistics records shared by the ratio engine and the ratio rules.
 */
#pragma once

#include <stdint.h>

#include <deque>

class SlaStatsData;

// Recent link-rate estimates of one interface, oldest first, with their maximum kept
// incrementally.
struct linkHistory_t {
    std::deque<uint32_t> rates;
    uint32_t maxRate = 0;
};

// One configured interface's statistics mapping, rate history, current rate and split ratio.
struct linkStatsWrapper_t {
    char interfaceName[128] = {};
    SlaStatsData* stats = nullptr;  // null when the statistics file could not be opened
    linkHistory_t history;
    uint32_t linkRate = 0;        // kbit/s, 1 kbit = 1024 bits
    uint32_t sampleCount = 0;     // intervals used by the last estimate
    float interfaceRatio = 0.0f;  // share of new connections, 0.0 to 1.0
};
