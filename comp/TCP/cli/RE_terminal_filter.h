// Takes the teeth out of text that goes to a terminal.
#pragma once

#include <cstddef>

class RE_terminal_filter
{
public:
    // Copies text; `to` has room for as much. Control characters other than newline and tab become question marks:
    // below blank, DEL, and U+0080 to U+009F in UTF-8 or as single bytes. All else stays as it is. Text may be parted
    // anywhere between calls.
    void copy(const char* from, std::size_t size, char* to);

private:
    char filtered(unsigned char byte);

    unsigned char m_lead = 0;     // of the UTF-8 character whose rest is to come
    unsigned int m_rest = 0;      // bytes of it that are to come
    bool m_b_second_next = false; // the next byte is the one after the lead
};
