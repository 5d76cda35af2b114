// Flags of records from shared memory or files.
#pragma once

#include <cstring>

// Whether a flag of such a record is set. Its byte may contain values other than 0 and 1; loading these as a bool is
// undefined behaviour.
inline bool is_set(const bool& flag)
{
    unsigned char byte = 0;
    std::memcpy(&byte, &flag, sizeof byte);
    return byte != 0;
}
