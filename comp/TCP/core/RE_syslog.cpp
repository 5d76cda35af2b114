#include "RE_syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

unsigned char global_debug_flags = 0;
unsigned char per_conn_debug_flags = 0;

} // namespace

unsigned char* re_syslog_global_debug_enabled = &global_debug_flags;
unsigned char* re_syslog_per_conn_debug_enabled = &per_conn_debug_flags;

// KAV_SYSLOG_DEBUG holds the debug flags to start with, as a decimal number; 8 turns debug messages on.
void re_syslog_init()
{
    openlog("kav", LOG_PID, LOG_DAEMON);
    if (const char* const flags = std::getenv("KAV_SYSLOG_DEBUG")) {
        global_debug_flags = static_cast<unsigned char>(std::strtoul(flags, nullptr, 10));
    }
}

void __re_syslog(const char* file, int line, int submodule, int priority, int msgid, const char* format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    syslog(priority & LOG_PRIMASK, "%%KAV-%d-%d-%d: %s [%s:%d]", submodule, priority, msgid, text, file, line);
}
