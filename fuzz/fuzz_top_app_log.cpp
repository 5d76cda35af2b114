// Reports any bytes as a top-application log: report and messages must be those of reading each field alone.
#include "RE_syslog.h"
#include "RE_top_app_log.h"
#include "support/top_app_log_reference.h"
#include "support/top_app_records.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

std::vector<std::string> messages;
unsigned char no_debug_flags = 0;

} // namespace

// Receives the messages instead of the system log.
unsigned char* re_syslog_global_debug_enabled = &no_debug_flags;
unsigned char* re_syslog_per_conn_debug_enabled = &no_debug_flags;

void re_syslog_init()
{}

void __re_syslog(const char*, int, int, int, int, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    messages.push_back(text);
}

namespace {

log_outcome outcome_of(std::string path, std::string peer, bool detail, int top)
{
    messages.clear();
    FILE* const terminal = stdout;
    const std::string output = printed([&](FILE* stream) {
        stdout = stream;
        show_top_app(path.data(), peer.data(), detail, top);
        stdout = terminal;
    });
    return {output, messages};
}

void compare(const std::string& bytes, const std::string& path, const std::string& peer, bool detail, int top)
{
    const log_outcome expected = read_log_field_by_field(bytes, path, peer, detail, top);
    const log_outcome outcome = outcome_of(path, peer, detail, top);
    if (outcome != expected) {
        std::fprintf(stderr, "expected:\n%s", expected.output.c_str());
        for (const std::string& message : expected.messages) {
            std::fprintf(stderr, "%s", message.c_str());
        }
        std::fprintf(stderr, "shown:\n%s", outcome.output.c_str());
        for (const std::string& message : outcome.messages) {
            std::fprintf(stderr, "%s", message.c_str());
        }
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const int fd = memfd_create("top-app-log", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    compare(bytes, path, "", false, 0);
    compare(bytes, path, "1", true, 2);
    close(fd);
    return 0;
}
