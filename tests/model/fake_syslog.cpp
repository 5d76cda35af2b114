#include "model/fake_syslog.h"

#include "RE_syslog.h"

#include <cstdarg>
#include <cstdio>

std::vector<fake_log_message> fake_log;

void __re_syslog(const char* file, int line, int submodule, int priority, int msgid, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fake_log.push_back({file, line, submodule, priority, msgid, text});
}
