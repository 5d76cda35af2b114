// What one run of a program costs, its output thrown away or sent where the caller wants it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A program and its arguments, the program's path first.
using program_words = std::vector<std::string>;

struct program_cost
{
    double seconds = 0;    // of wall time, from its start to its end
    long page_faults = 0;  // that needed no disk, those of its start included
    long system_calls = 0; // from execve to the exit, both included
    long write_calls = 0;  // of these, write(2)
    long resident = 0;     // most memory that it had, in KB
    long instructions = 0; // in user mode; each round of a repeated instruction counts
};

// Runs the program undisturbed: wall time and page faults. output: a descriptor, or -1 for /dev/null. Ends this program
// with a message when the other cannot be run or does not exit with 0.
program_cost timed_run(const program_words& words, int output = -1);

// Runs it under our eyes: system calls, write calls and memory.
program_cost watched_run(const program_words& words);

// Runs it instruction by instruction, which takes some thousand times as long.
long count_instructions(const program_words& words);

// A figure of /proc/PID/status in KB, such as "VmHWM", the most memory that a process has had resident; 0 when there is
// none.
long kilobytes_of(pid_t process, const std::string& figure);
