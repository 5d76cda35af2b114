// An engine of known figures, for programs that need one of each thing there is to report.
#pragma once

#include "RE_stat_writer.h"

#include <string>
#include <vector>

// The engine started at this moment, and everything else that it tells happened within the hour before `sample_now`.
constexpr std::time_t sample_start = 1700000000;
constexpr std::time_t sample_now = sample_start + 3600;

// How much of an engine is wanted.
struct sample_size
{
    int peers = 2;
    int conns = 4;
    int apps = 3;
    int nacks = 3;
    int bypassed = 2;
};

// Makes a segment under the name in KAV_STAT_SEGMENT, fills it and lets viewers in. Returns what create() does.
int publish_sample(RE_stat_writer& writer, const sample_size& wanted);

// The same engine's statistics as bytes: saved, or as a live segment holds them.
std::vector<unsigned char> saved_sample(const sample_size& wanted);
std::vector<unsigned char> live_sample(const sample_size& wanted);

// Gives KAV_STAT_SEGMENT a name that no other process uses, and returns it.
std::string use_own_segment();
