// Runs work in a child process.
#pragma once

#include <sys/types.h>

#include <functional>

class forked_process
{
public:
    using callback = std::function<void()>;

    // Runs `work` in a child process. Returns when the work has called `ready` or has ended. A child that has finished
    // its work waits. It is killed with this object or with the test's process.
    explicit forked_process(const std::function<void(const callback& ready)>& work);
    ~forked_process() { kill_now(); }
    forked_process(const forked_process&) = delete;
    forked_process& operator=(const forked_process&) = delete;

    // Whether the work has called `ready`.
    bool is_ready() const { return m_b_ready; }
    void kill_now();

private:
    pid_t m_pid = -1;
    bool m_b_ready = false;
};
