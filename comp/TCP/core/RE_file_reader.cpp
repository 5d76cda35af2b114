#include "RE_file_reader.h"

#include "RE_stat_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

RE_file_reader::~RE_file_reader()
{
    RE_file_reader::close();
}

int RE_file_reader::open()
{
    close();
    // Without waiting, as a pipe in the file's place would make the call wait for a writer.
    const int descriptor = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        switch (errno) {
        case ENOENT:
        case ENOTDIR:
            return RE_STAT_ERR_NO_FILE;
        case EACCES:
        case EPERM:
            return RE_STAT_ERR_PERMISSION;
        case ENXIO:
            return RE_STAT_ERR_NOT_A_FILE; // a socket
        default:
            return RE_STAT_ERR_READ;
        }
    }
    const int error = load(descriptor);
    ::close(descriptor);
    if (error != 0) {
        close();
    }
    return error;
}

int RE_file_reader::load(int descriptor)
{
    struct stat status
    {
    };
    if (fstat(descriptor, &status) != 0) {
        return RE_STAT_ERR_READ;
    }
    if (!S_ISREG(status.st_mode)) {
        return RE_STAT_ERR_NOT_A_FILE;
    }
    if (status.st_size <= 0) {
        return RE_STAT_ERR_EMPTY_FILE;
    }
    // Both ends are judged first, so that memory is only taken for what can be a statistics file.
    RE_image_header head{};
    const ssize_t head_size = pread(descriptor, &head, sizeof head, 0);
    if (head_size < 0) {
        return RE_STAT_ERR_READ;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (const int error = check_image_header(head, static_cast<std::size_t>(head_size), size)) {
        return error;
    }
    RE_image_trailer trailer{};
    if (pread(descriptor, &trailer, sizeof trailer, status.st_size - static_cast<off_t>(sizeof trailer)) !=
        static_cast<ssize_t>(sizeof trailer)) {
        return RE_STAT_ERR_READ;
    }
    if (std::memcmp(trailer.magic, RE_image_trailer_magic, sizeof trailer.magic) != 0) {
        return RE_STAT_ERR_CHECKSUM;
    }

    m_bytes = static_cast<unsigned char*>(std::malloc(size));
    if (m_bytes == nullptr) {
        return RE_STAT_ERR_NO_MEMORY;
    }
    std::size_t loaded = 0;
    while (loaded < size) {
        const ssize_t part = read(descriptor, m_bytes + loaded, size - loaded);
        if (part < 0 && errno == EINTR) {
            continue;
        }
        if (part < 0) {
            return RE_STAT_ERR_READ;
        }
        if (part == 0) {
            return RE_STAT_ERR_CUT; // it shrinks while it is read
        }
        loaded += static_cast<std::size_t>(part);
    }

    RE_stat_image image;
    if (const int error = image.attach(m_bytes, size, RE_image_kind::saved)) {
        return error;
    }
    begin(image);
    return 0;
}

int RE_file_reader::close()
{
    end();
    std::free(m_bytes);
    m_bytes = nullptr;
    return 0;
}

std::unique_ptr<RE_image_reader::writable_image> RE_file_reader::open_writable()
{
    if (!is_open()) {
        return nullptr;
    }
    auto target = std::make_unique<writable_image>();
    target->image = image();
    return target;
}
