// Reads the live statistics of the running engine from shared memory, without slowing it down.
#pragma once

#include "RE_image_reader.h"
#include "RE_stat_folder.h"
#include "RE_watched_mapping.h"

class RE_shm_reader : public RE_image_reader
{
public:
    RE_shm_reader() = default;
    ~RE_shm_reader() override;
    RE_shm_reader(const RE_shm_reader&) = delete;
    RE_shm_reader& operator=(const RE_shm_reader&) = delete;

    // Opens the segment of the first running engine in the folders of RE_stat_folders. Returns 0, or an RE_stat_error
    // when there is no segment, no permission, no running engine, or no valid image. Without a running engine, the
    // error is that of the first folder that contains a segment or cannot be used.
    int open() override;
    int close() override;
    // Whether both readers, which must be open, read the same segment. A mapped file keeps its inode, so no other
    // segment can get the same one.
    bool reads_same_segment(const RE_shm_reader& other) const
    {
        return m_device == other.m_device && m_inode == other.m_inode;
    }

protected:
    std::unique_ptr<writable_image> open_writable() override;

private:
    int map(int segment, const struct stat& status);

    RE_stat_path m_folder = {};   // where the segment was found
    RE_watched_mapping m_mapping; // read-only
    unsigned long m_device = 0;   // identifies the mapped file; the name may pass to a new engine
    unsigned long m_inode = 0;
};
