// A mapping of a file that its owner may truncate while it is read. Reading beyond the new end raises SIGBUS, which
// would end the reader. Here the missing pages are replaced by zeros, and the mapping records that it was truncated.
//
// The first mapping installs the signal handler. If the program had its own handler for SIGBUS, that is called as well,
// after the zeros are in place, and may end the program; it is not called while an RE_cut_silence exists. Signals that
// do not concern a mapping are passed on to the program's handler, or end the program as usual.
#pragma once

#include <cstddef>

struct RE_watched_range;

class RE_watched_mapping
{
public:
    RE_watched_mapping() = default;
    ~RE_watched_mapping() { unmap(); }
    RE_watched_mapping(const RE_watched_mapping&) = delete;
    RE_watched_mapping& operator=(const RE_watched_mapping&) = delete;

    // Maps the first `size` bytes of an open file. protection: as for mmap. Returns 0 or an RE_stat_error.
    int map(int descriptor, std::size_t size, int protection);
    void unmap();
    // Moves this memory to the address of another mapping of the same size, whose memory it replaces. This mapping is
    // then empty. Returns false and sets errno on failure.
    bool move_to(RE_watched_mapping& other);

    unsigned char* base() const { return m_base; }
    std::size_t size() const { return m_size; }
    // Whether the file was truncated, so that bytes read since map() may have been zeros.
    bool is_cut() const;

private:
    friend class RE_cut_silence;

    void forget();

    unsigned char* m_base = nullptr;
    std::size_t m_size = 0;
    RE_watched_range* m_range = nullptr; // the signal handler's record of it
};

// While it exists, a truncation is only recorded, and the program's own handler is not called: code that is writing a
// file must clean up before the program may end.
class RE_cut_silence
{
public:
    // mapping: null for memory that no other process can truncate.
    explicit RE_cut_silence(const RE_watched_mapping* mapping);
    ~RE_cut_silence();
    RE_cut_silence(const RE_cut_silence&) = delete;
    RE_cut_silence& operator=(const RE_cut_silence&) = delete;

private:
    RE_watched_range* m_range;
};
