#include "RE_descriptor.h"

#include <poll.h>

int write_all(int descriptor, const void* bytes, std::size_t size, std::size_t& written)
{
    written = 0;
    while (written < size) {
        const ssize_t count = ::write(descriptor, static_cast<const unsigned char*>(bytes) + written, size - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
        } else if (count < 0 && errno == EAGAIN) {
            // Another process made the pipe non-blocking; wait as a blocking write would.
            pollfd ready{descriptor, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (count == 0 || errno != EINTR) {
            return count == 0 ? EIO : errno;
        }
    }
    return 0;
}
