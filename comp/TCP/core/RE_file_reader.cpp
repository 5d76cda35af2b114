#include "RE_file_reader.h"

#include "RE_descriptor.h"
#include "RE_stat_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// Checks those parts of a large file that can be read quickly, before all of it is loaded: a large file of holes costs
// nothing to create. A smaller file is loaded at once; its checksum then distinguishes damage from an invalid layout.
int check_large_file(int descriptor, const RE_image_header& head, std::size_t size)
{
    RE_image_section table[RE_image_max_sections];
    const std::uint32_t sections = image_sections_to_check(head, size);
    const std::size_t table_size = sections * sizeof table[0];
    if (pread(descriptor, table, table_size, sizeof head) != static_cast<ssize_t>(table_size)) {
        return RE_STAT_ERR_READ;
    }
    RE_image_section found[RE_image_section_count] = {};
    if (const int error = check_image_sections(head, {table, sections}, size, RE_image_kind::saved, found)) {
        return error;
    }
    // Connections make up nearly all of a large file. Rows in a hole all have the same slot number.
    const RE_image_section& conns = found[RE_IMAGE_CONNS - 1];
    alignas(RE_image_conn_row) unsigned char rows[RE_image_max_row_size];
    std::int64_t last_slot = -1;
    const std::uint64_t rows_at_once = std::min<std::uint64_t>(sizeof rows / conns.row_size, 256);
    for (std::uint64_t at = 0; at < conns.rows; at += rows_at_once) {
        const std::size_t bytes = std::min(conns.rows - at, rows_at_once) * conns.row_size;
        if (pread(descriptor, rows, bytes, static_cast<off_t>(conns.offset + at * conns.row_size)) !=
            static_cast<ssize_t>(bytes)) {
            return RE_STAT_ERR_READ;
        }
        for (std::size_t place = 0; place < bytes; place += conns.row_size) {
            const std::uint32_t slot = reinterpret_cast<const RE_image_conn_row*>(rows + place)->slot;
            if (slot <= last_slot) {
                return RE_STAT_ERR_LAYOUT;
            }
            last_slot = slot;
        }
    }
    return 0;
}

} // namespace

RE_file_reader::~RE_file_reader()
{
    RE_file_reader::close();
}

int RE_file_reader::open()
{
    close();
    // O_NONBLOCK, because opening a pipe would otherwise wait for a writer.
    const RE_descriptor file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.is_open()) {
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
    const int error = load(file.number());
    if (error != 0) {
        close();
    }
    return error;
}

int RE_file_reader::load(int descriptor)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return RE_STAT_ERR_READ;
    }
    if (!S_ISREG(status.st_mode)) {
        return RE_STAT_ERR_NOT_A_FILE;
    }
    if (status.st_size <= 0) {
        return RE_STAT_ERR_EMPTY_FILE;
    }
    // The header and the trailer are checked first, so that memory is allocated only for what may be a statistics file.
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

    constexpr std::size_t not_worth_the_care = std::size_t{16} << 20;
    if (size > not_worth_the_care) {
        if (const int error = check_large_file(descriptor, head, size)) {
            return error;
        }
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
            return RE_STAT_ERR_CUT; // the file was truncated while it was read
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
