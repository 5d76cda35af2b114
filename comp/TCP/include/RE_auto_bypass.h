// The engine's auto-bypass table: the servers whose traffic goes around the engine because it does not compress. An
// implementation of the engine library supplies both operations.
#pragma once

#include <cstdint>

class RE_auto_bypass
{
public:
    // Size in bytes of the table's memory.
    static std::uint32_t get_shm_size();

    // Prints the table found at `mem` (get_shm_size() bytes, or null when there is none) to standard output: a summary
    // and, with b_detail, every entry.
    static void show_tables(void* mem, bool b_detail);
};
