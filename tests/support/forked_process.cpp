#include "support/forked_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

forked_process::forked_process(const std::function<void(const callback& ready)>& work)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        work([&] { [[maybe_unused]] const ssize_t told = write(ends[1], "r", 1); });
        close(ends[1]);
        while (true) {
            pause();
        }
    }
    close(ends[1]);
    char byte = 0;
    m_b_ready = read(ends[0], &byte, 1) == 1;
    close(ends[0]);
}

void forked_process::kill_now()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}
