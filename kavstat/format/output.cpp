#include "format/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace kavstat {

bool DescriptorSink::take(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(m_descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EAGAIN) {
            // Another program that shares the output has made it non-blocking.
            pollfd ready{m_descriptor, POLLOUT, 0};
            poll(&ready, 1, -1);
            continue;
        }
        if (written <= 0) {
            m_error = written < 0 ? errno : EIO;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool Output::flush()
{
    if (m_b_ok && !m_buffer.empty()) {
        m_b_ok = m_sink.take(m_buffer);
    }
    m_buffer.clear();
    return m_b_ok;
}

} // namespace kavstat
