// The table of log sources and the level configuration they inherit from.
#pragma once

#include <atomic>
#include <cstddef>

namespace tqlog {

constexpr unsigned kAllLevels = 0x3F;
constexpr unsigned kDefaultLevels = 1 | 2 | 4;  // Fatal, Error, Warning
constexpr size_t kMaxSources = 1024;
constexpr size_t kMaxNameLength = 63;

// Registers or finds `name`; 0 when the name is empty or the table is full.
unsigned registerSource(const char* name, const char* parent, bool muted);

// Mask of enabled levels, 0 for an unknown id. Lock-free.
unsigned enabledLevels(unsigned id);

// Name of a registered source, nullptr for an unknown id.
const char* sourceName(unsigned id);

// Re-parses the level configuration (from TQ_LOG when levels is null) and
// recomputes every source's mask.
void configure(const char* levels);

// Parses one level word ("debug", "off", "all", "0x1f", "12"); false when it
// is none of these.
bool parseLevelMask(const char* word, size_t length, unsigned* mask);

}  // namespace tqlog
