// The signature that identifies a chunk, and the checksum that verifies a decoded message.
#pragma once

#include "RE_bytes.h"

using RE_signature = std::uint64_t;

// Returns the low `bits` (8 to 64) bits of the chunk's hash. Engines of older releases use short signatures: they save
// bytes on the wire, but sometimes two different chunks share one.
RE_signature signature_of(RE_byte_view chunk, unsigned int bits);

// Bytes that a signature of `bits` bits takes on the wire.
constexpr std::size_t signature_width(unsigned int bits)
{
    return (bits + 7) / 8;
}

std::uint64_t checksum_of(RE_byte_view message);
