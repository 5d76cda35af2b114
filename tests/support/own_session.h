// A session folder of the test's own. Engines publish in it, apart from all other engines, and other users can be given
// access.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

class own_session
{
public:
    own_session() : m_path("/dev/shm/kav_session.XXXXXX")
    {
        if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0755) != 0) {
            throw std::runtime_error("cannot make " + m_path);
        }
        if (const char* const before = std::getenv("XDG_RUNTIME_DIR")) {
            m_before = before;
        }
        enter();
    }
    ~own_session()
    {
        leave();
        if (m_before) {
            setenv("XDG_RUNTIME_DIR", m_before->c_str(), 1);
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    own_session(const own_session&) = delete;
    own_session& operator=(const own_session&) = delete;

    void enter() const { setenv("XDG_RUNTIME_DIR", m_path.c_str(), 1); }
    static void leave() { unsetenv("XDG_RUNTIME_DIR"); }
    const std::string& path() const { return m_path; }
    // The folder that contains the segments.
    std::string folder() const { return m_path + "/kav"; }
    // Lets all users read the folder, as the group may read /run/kav. An engine must have created the folder before.
    bool let_others_in() const { return chmod(folder().c_str(), 0755) == 0; }

private:
    std::string m_path;
    std::optional<std::string> m_before;
};
