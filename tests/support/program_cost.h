// Measures what one run of a program costs. The output is discarded or sent where the caller requests.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A program and its arguments, with the program's path first.
using program_words = std::vector<std::string>;

struct program_cost
{
    double seconds = 0;    // wall time, from start to end
    long page_faults = 0;  // minor page faults, including those at the start
    long system_calls = 0; // from execve to the exit, both included
    long write_calls = 0;  // calls of write(2), included in system_calls
    long resident = 0;     // peak resident memory in KB
    long instructions = 0; // in user mode; each round of a repeated instruction counts
};

// Measures wall time and page faults of an undisturbed run. output: a descriptor, or -1 for /dev/null. Ends this
// program with a message when the other program cannot be run or does not exit with 0.
program_cost timed_run(const program_words& words, int output = -1);

// Measures system calls, write calls and memory of a traced run.
program_cost watched_run(const program_words& words);

// Counts the instructions of a single-stepped run, which takes about a thousand times as long.
long count_instructions(const program_words& words);

// Returns a figure of /proc/PID/status in KB, such as "VmHWM", the peak resident memory. Returns 0 when it is missing.
long kilobytes_of(pid_t process, const std::string& figure);
