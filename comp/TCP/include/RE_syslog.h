// The engine library's access to the system log. Each implementation of the engine library provides all of this.
#pragma once

// The part of the engine that a message belongs to.
enum RE_submodules_t : int
{
    KAV_CORE = 1,
    KAV_CACHE = 2,
    KAV_AGG = 3,
    KAV_CHUNK = 4,
    KAV_FILEMGR = 5,
    KAV_STATS = 6,
    KAV_LZ = 7,
    KAV_GENERIC = 8,
    KAV_NACK = 9,
};

// The two priorities in use; their values are those of syslog(3).
constexpr int RE_SYSLOG_ERROR = 3;
constexpr int RE_SYSLOG_DEBUG = 7;

// The bit in either flag byte below that turns debug messages on.
constexpr unsigned char RE_SYSLOG_DEBUG_ENABLED = 8;

// Debug flags of the whole engine and of single connections. The engine library owns the bytes and may change them at
// any time.
extern unsigned char* re_syslog_global_debug_enabled;
extern unsigned char* re_syslog_per_conn_debug_enabled;

// Starts logging. Must be called once per process, before the first message.
void re_syslog_init();

// Sends one formatted message to the system log; cannot fail. file and line name the place that logs. Log filters match
// on them and on msgid. submodule: an RE_submodules_t; priority: RE_SYSLOG_ERROR or RE_SYSLOG_DEBUG.
void __re_syslog(const char* file, int line, int submodule, int priority, int msgid, const char* format, ...)
    __attribute__((format(printf, 6, 7)));
