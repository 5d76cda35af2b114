// Makes text harmless to a terminal.
#pragma once

#include <cstddef>

class RE_terminal_filter
{
public:
    // Copies text; `to` has room for `size` bytes. Control characters other than newline and tab become question marks:
    // those below blank, DEL, and U+0080 to U+009F in UTF-8 or as single bytes. All other bytes are copied as they are.
    // A text may be split anywhere between two calls.
    void copy(const char* from, std::size_t size, char* to);

private:
    char filtered(unsigned char byte);

    unsigned char m_lead = 0;     // of the UTF-8 character that is not complete yet
    unsigned int m_rest = 0;      // how many of its bytes are still to come
    bool m_b_second_next = false; // the next byte is the one after the lead
};
