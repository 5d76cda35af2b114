// The report on the engine as a whole.
#pragma once

// Prints the summary, with `detail` the cache, queue and LZ detail, and the connection figures of the whole engine when
// it has had connections.
void show_global(bool detail);

// Prints the state of the cache; nothing but its status while it is initializing.
void show_global_info();

// Prints the internals of the cache, the ack queue, low-memory errors, persistent LZ and top-application updates.
void show_global_detail();

// Prints one module's memory account from three runs of consecutive global counters: five allocation counters from
// first_alloc_stat_id, three operation counters from first_oper_id, eight size buckets from first_size_dist_id.
// Returns the module's total allocation.
long long show_malloc_stat_for_module(const char* module_name, int first_alloc_stat_id, int first_oper_id,
                                      int first_size_dist_id);
