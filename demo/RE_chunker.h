// Cuts messages into chunks at places that depend on the content. An inserted byte moves only the cuts near it, so
// repeated data is found again wherever it is.
#pragma once

#include "RE_bytes.h"

// Sizes in bytes. An anchor is a place where the content requests a cut; on average there is one every
// `anchor_distance` bytes. The search for it starts when a chunk has its minimum size, so chunks average min +
// anchor_distance.
struct RE_chunk_sizes
{
    std::uint32_t min = 256;              // 64 to max
    std::uint32_t anchor_distance = 1024; // a power of two
    std::uint32_t max = 8192;             // up to 16,383, the limit of a chunk's record
};

enum class RE_cut_cause
{
    anchor,      // the content requests a cut
    forced,      // the chunk reached its maximum size
    end_of_data, // the message ended; the chunk may be of any size
};

struct RE_chunk_cut
{
    std::uint32_t size;
    RE_cut_cause cause;
};

class RE_chunker
{
public:
    // Throws std::invalid_argument for sizes out of range.
    explicit RE_chunker(const RE_chunk_sizes& sizes);

    const RE_chunk_sizes& sizes() const { return m_sizes; }

    // Returns where the chunk ends that starts at the beginning of `data`. data: not empty.
    RE_chunk_cut cut(RE_byte_view data) const;

private:
    RE_chunk_sizes m_sizes;
    std::uint64_t m_anchor_mask;
};
