// Gives this process its own /dev/shm and /run, which other processes cannot see, and a system log that it can read.
// Needs root.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

class private_dev
{
public:
    // From now on this process and its children have their own folders. Returns false when the system does not allow
    // that.
    bool enter()
    {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0 || mkdir("/dev/shm", 0777) != 0 ||
            chmod("/dev/shm", 01777) != 0) {
            return false;
        }
        make_device("/dev/null", 3);
        make_device("/dev/zero", 5);
        make_device("/dev/full", 7);
        unsetenv("XDG_RUNTIME_DIR");
        closelog();
        m_log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        return bind(m_log, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               chmod("/dev/log", 0666) == 0;
    }

    // Returns what was sent to the system log since the last call.
    std::string logged() const
    {
        std::string text;
        char message[4096];
        for (ssize_t length = 0; (length = recv(m_log, message, sizeof message, 0)) > 0;) {
            text.append(message, static_cast<std::size_t>(length)) += '\n';
        }
        return text;
    }

    // Starts a process that reads and discards the log, because programs wait when the log is full.
    void discard_log() const
    {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            fcntl(m_log, F_SETFL, 0);
            char message[4096];
            while (recv(m_log, message, sizeof message, 0) >= 0) {
            }
            _exit(0);
        }
    }

private:
    static void make_device(const char* path, unsigned int number)
    {
        if (mknod(path, S_IFCHR | 0666, makedev(1, number)) == 0) {
            chmod(path, 0666);
        }
    }

    int m_log = -1;
};
