#include "model/source.h"

#include "RE_file_reader.h"
#include "RE_shm_reader.h"
#include "RE_stat_error.h"

namespace kavstat {

Source::Source(std::optional<std::string> file) : m_file(std::move(file))
{
    if (m_file) {
        m_reader = std::make_unique<RE_file_reader>(m_file->c_str());
    } else {
        m_reader = std::make_unique<RE_shm_reader>();
    }
}

std::string Source::name() const
{
    return m_file.value_or("the running engine");
}

int Source::open()
{
    m_reader->close();
    return m_reader->open();
}

bool Source::is_same_engine(const Source& other) const
{
    const auto* const mine = dynamic_cast<const RE_shm_reader*>(m_reader.get());
    const auto* const theirs = dynamic_cast<const RE_shm_reader*>(other.m_reader.get());
    return mine != nullptr && theirs != nullptr && mine->reads_same_segment(*theirs);
}

std::string Source::reason_of(int error)
{
    switch (error) {
    case RE_STAT_ERR_NO_ENGINE:
        return "no engine is running";
    case RE_STAT_ERR_PERMISSION:
        return "no permission to read the statistics";
    case RE_STAT_ERR_ENGINE_GONE:
        return "the engine is no longer running";
    case RE_STAT_ERR_NOT_PUBLISHED:
        return "the engine is still starting, or is stopping";
    case RE_STAT_ERR_OWNER:
        return "the statistics belong to a user who is not trusted; the system log names the user";
    case RE_STAT_ERR_UNKNOWN_OWNER:
        return "KAV_STAT_OWNER is not a user of this machine";
    case RE_STAT_ERR_NO_FILE:
        return "there is no such file";
    case RE_STAT_ERR_NOT_A_FILE:
        return "not a regular file";
    case RE_STAT_ERR_EMPTY_FILE:
        return "the file is empty";
    case RE_STAT_ERR_READ:
        return "the statistics cannot be read";
    case RE_STAT_ERR_NO_MEMORY:
        return "not enough memory to hold the statistics";
    case RE_STAT_ERR_NOT_STATISTICS:
        return "not a statistics file";
    case RE_STAT_ERR_BYTE_ORDER:
        return "written on a machine with another byte order";
    case RE_STAT_ERR_VERSION:
        return "this program does not know the version of its layout";
    case RE_STAT_ERR_CUT:
        return "the file is shorter or longer than its contents";
    case RE_STAT_ERR_CHECKSUM:
        return "the file is damaged";
    case RE_STAT_ERR_LAYOUT:
        return "the file's contents are inconsistent";
    default:
        return "error " + std::to_string(error);
    }
}

} // namespace kavstat
