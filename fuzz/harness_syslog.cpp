// The system log of the fuzz targets: formats every message and discards it.
#include "RE_syslog.h"

#include <cstdarg>
#include <cstdio>

namespace {

// Debug messages are enabled, because they contain text of the command line.
unsigned char debug_flags = RE_SYSLOG_DEBUG_ENABLED;

} // namespace

unsigned char* re_syslog_global_debug_enabled = &debug_flags;
unsigned char* re_syslog_per_conn_debug_enabled = &debug_flags;

void re_syslog_init()
{}

void __re_syslog(const char*, int, int, int, int, const char* format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
}
