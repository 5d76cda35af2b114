// The area of the engine's work that a counter belongs to, and whether it counts something that should not happen.
#pragma once

#include "model/counter_names.h"

namespace kavstat {

// "cache", "messages": the area of the counter with this id.
const char* area_of(CounterScope scope, int id);

// Whether it counts errors, refusals or repeated work. It says nothing about how many are too many.
bool counts_errors(CounterScope scope, int id);

} // namespace kavstat
