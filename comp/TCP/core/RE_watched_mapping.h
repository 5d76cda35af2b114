// A mapping of a file that its owner may cut short while it is read. Reading beyond the cut raises SIGBUS, which would
// end the reader: here zeros take the place of what is gone, and the mapping knows that it was cut.
//
// The signal's handler is put into place by the first mapping. A program that had a handler of its own for SIGBUS is
// then called as well, after the zeros are there, and may end itself; it is not called while a RE_cut_silence lives.
// Signals that have nothing to do with a mapping go to that handler, or end the program as they always did.
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

    // Maps the first `size` bytes of an open file. protection: as of mmap. Returns 0 or an RE_stat_error.
    int map(int descriptor, std::size_t size, int protection);
    void unmap();
    // Puts this memory in the place of another mapping's, of the same size, and leaves none here. Returns false, with
    // errno, when that fails.
    bool move_to(RE_watched_mapping& other);

    unsigned char* base() const { return m_base; }
    std::size_t size() const { return m_size; }
    // Whether some of what was read since map() may have been zeros in place of what had been cut off.
    bool is_cut() const;

private:
    friend class RE_cut_silence;

    void forget();

    unsigned char* m_base = nullptr;
    std::size_t m_size = 0;
    RE_watched_range* m_range = nullptr; // what the signal's handler knows of it
};

// While it lives, a cut is only noted: who is in the middle of a file has to clean up before the program may end.
class RE_cut_silence
{
public:
    // mapping: null for memory that nobody can cut.
    explicit RE_cut_silence(const RE_watched_mapping* mapping);
    ~RE_cut_silence();
    RE_cut_silence(const RE_cut_silence&) = delete;
    RE_cut_silence& operator=(const RE_cut_silence&) = delete;

private:
    RE_watched_range* m_range;
};
