#include "RE_signature.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

RE_signature signature_of(RE_byte_view chunk, unsigned int bits)
{
    const std::uint64_t hash = XXH3_64bits(chunk.data(), chunk.size());
    return bits >= 64 ? hash : hash & ((std::uint64_t{1} << bits) - 1);
}

// Not the hash function of the signatures: two chunks that share a signature must not share a checksum.
std::uint64_t checksum_of(RE_byte_view message)
{
    return XXH64(message.data(), message.size(), 0);
}
