// Shared by the torture campaigns. A campaign tests one promise many times and counts how often it is broken.
#pragma once

#include "support/child_program.h"
#include "support/files.h"

#include <random>
#include <string>
#include <vector>

struct torture_options
{
    unsigned long count = 0; // number of trials
    unsigned int seed = 1;
    std::string bin;    // folder of the programs to attack instead of those built here
    std::string folder; // empty, on a disk, removed at the end
};

// Counts trials and prints those that broke the promise.
class tally
{
public:
    // Adds one trial. what: printed when the promise was broken.
    void add(bool b_kept, const std::string& what);
    // Marks the campaign as skipped for this reason.
    void skip(const std::string& reason)
    {
        m_b_skipped = true;
        m_note = "skipped: " + reason;
    }
    bool is_skipped() const { return m_b_skipped; }
    // Sets additional text for the end of the campaign's row.
    void note(const std::string& text) { m_note = text; }

    unsigned long tried() const { return m_tried; }
    unsigned long lost() const { return m_lost; }
    const std::string& note() const { return m_note; }

private:
    unsigned long m_tried = 0;
    unsigned long m_lost = 0;
    bool m_b_skipped = false;
    std::string m_note;
};

struct campaign
{
    const char* name;
    const char* promise;         // what is tested, in a few words
    unsigned long default_count; // number of trials; 0 when the campaign determines it
    void (*run)(const torture_options& options, tally& result);
};

// Files and saving.
void cut_saved_files(const torture_options& options, tally& result);
void flip_saved_files(const torture_options& options, tally& result);
void kill_while_saving(const torture_options& options, tally& result);
void fail_calls_while_saving(const torture_options& options, tally& result);
void fill_disk_while_saving(const torture_options& options, tally& result);
// A changing engine.
void read_moving_engine(const torture_options& options, tally& result);
void compare_throughput(const torture_options& options, tally& result);
void change_engines(const torture_options& options, tally& result);
// Surroundings.
void close_outputs(const torture_options& options, tally& result);
void fail_allocations(const torture_options& options, tally& result);
void starve_viewer(const torture_options& options, tally& result);
void turn_clocks(const torture_options& options, tally& result);
void start_many_viewers(const torture_options& options, tally& result);
// Attacks by other users on trust, and hostile input.
void attack_as_neighbours(const torture_options& options, tally& result);
void attack_with_inputs(const torture_options& options, tally& result);
// kavstat's server.
void attack_server(const torture_options& options, tally& result);
// kavstat health. count: seconds beside a healthy engine, at least.
void judge_health(const torture_options& options, tally& result);

// Every report on a live engine, as the viewer's arguments.
const std::vector<std::vector<std::string>>& all_reports();
std::string words_of(const std::vector<std::string>& arguments);

// The viewer's message when no engine can be reported on.
constexpr const char* refusal = "KAV Statistics failed OR KAV was not initialized by WEQ";

// Returns the end of a program in words: "status 1", "signal 11", "no end".
std::string end_of(const program_result& result);

std::vector<unsigned char> read_bytes(const std::string& path);
void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes);

// Keeps this process and its children on one processor. Does nothing on a machine with fewer processors.
void stay_on_processor(int number);
