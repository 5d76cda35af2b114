#include "RE_syslog.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

unsigned char global_debug_flags = 0;
unsigned char per_conn_debug_flags = 0;

constexpr std::size_t longest_message = 2048;

std::size_t trailing_newlines(const char* format)
{
    const std::size_t length = std::strlen(format);
    std::size_t count = 0;
    while (count < length && format[length - 1 - count] == '\n') {
        ++count;
    }
    return count;
}

// Escapes control characters. Messages quote text that may contain anything; it must not start a new line or move a
// terminal's cursor.
void escape_controls(const char* text, std::size_t length, char (&line)[longest_message])
{
    constexpr char digits[] = "0123456789abcdef";
    constexpr std::size_t longest_escape = 4;
    std::size_t end = 0;
    for (std::size_t at = 0; at < length && end + longest_escape < sizeof line; ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (c >= ' ' && c != 0x7f) {
            line[end++] = text[at];
            continue;
        }
        line[end++] = '\\';
        if (c == '\n' || c == '\t' || c == '\r') {
            line[end++] = c == '\n' ? 'n' : c == '\t' ? 't' : 'r';
        } else {
            line[end++] = 'x';
            line[end++] = digits[c >> 4U];
            line[end++] = digits[c & 15U];
        }
    }
    line[end] = '\0';
}

} // namespace

unsigned char* re_syslog_global_debug_enabled = &global_debug_flags;
unsigned char* re_syslog_per_conn_debug_enabled = &per_conn_debug_flags;

// KAV_SYSLOG_DEBUG contains the initial debug flags as a decimal number; 8 turns debug messages on.
void re_syslog_init()
{
    openlog("kav", LOG_PID, LOG_DAEMON);
    if (const char* const flags = std::getenv("KAV_SYSLOG_DEBUG")) {
        global_debug_flags = static_cast<unsigned char>(std::strtoul(flags, nullptr, 10));
    }
}

void __re_syslog(const char* file, int line, int submodule, int priority, int msgid, const char* format, ...)
{
    char text[longest_message];
    va_list arguments;
    va_start(arguments, format);
    const auto length = static_cast<std::size_t>(std::max(std::vsnprintf(text, sizeof text, format, arguments), 0));
    va_end(arguments);
    // Callers end some formats with a line break. It is removed because the place follows on the same line.
    const std::size_t message_length = length - std::min(length, trailing_newlines(format));
    char line_text[longest_message];
    escape_controls(text, std::min(message_length, sizeof text - 1), line_text);
    syslog(priority & LOG_PRIMASK, "%%KAV-%d-%d-%d: %s [%s:%d]", submodule, priority, msgid, line_text, file, line);
}
