// Flags of records that come from outside.
#pragma once

#include <cstring>

// A flag of a record from shared memory or a file, where its byte may hold more than 0 and 1: loading that as a bool
// would be undefined.
inline bool is_set(const bool& flag)
{
    unsigned char byte = 0;
    std::memcpy(&byte, &flag, sizeof byte);
    return byte != 0;
}
