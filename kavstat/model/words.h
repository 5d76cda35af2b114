// The codes in records as words, the same in JSON, its schema and the live view.
#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace kavstat {

inline constexpr std::array<const char*, 5> cache_state_words{"inactive", "initializing", "active",
                                                              "temporarily_failed", "failed"};
inline constexpr std::array<const char*, 5> comp_type_words{"invalid", "re", "lz", "re_and_lz", "none"};
inline constexpr std::array<const char*, 5> nack_reason_words{"none", "chunk_missed", "checksum_collision",
                                                              "disk_overloaded", "cache_not_ready"};
// From 1 on, an RE_bypass_reason.
inline constexpr std::array<const char*, 4> bypass_reason_words{"unknown", "low_compression", "configured",
                                                                "repeated_nacks"};

// By RE_stat_nack_type; any other is a retransmission, too.
inline constexpr std::array<const char*, 2> nack_type_words{"nack", "rtx"};

// The word for a code, "unknown" for a code without one.
inline const char* word_for(std::span<const char* const> words, long long code)
{
    return code >= 0 && static_cast<std::size_t>(code) < words.size() ? words[static_cast<std::size_t>(code)]
                                                                      : "unknown";
}

} // namespace kavstat
