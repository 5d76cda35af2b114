// The engine's auto-bypass table: the servers whose traffic bypasses the engine because it does not compress. Each
// implementation of the engine library provides both functions.
#pragma once

#include <cstdint>

class RE_auto_bypass
{
public:
    // Returns the size of the table's memory in bytes.
    static std::uint32_t get_shm_size();

    // Prints the table at `mem` (get_shm_size() bytes; null when there is no table) to standard output: a summary and,
    // with b_detail, every entry.
    static void show_tables(void* mem, bool b_detail);
};
