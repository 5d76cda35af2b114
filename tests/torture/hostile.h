// Attacks by other users of the machine. The campaign hostile-neighbours runs a table of attacks against the programs
// in any folder.
#pragma once

#include "support/forked_process.h"
#include "torture.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// The neighbour is a user that owns nothing. `operators` is a group that may be given access.
constexpr uid_t neighbour_user = 65534;
constexpr gid_t neighbour_group = 65534;
constexpr gid_t operators = 4711;

// Where an attack takes place: a process of root with its own /dev and /run.
struct hostile_place
{
    std::string bin; // the programs under attack

    program_result run(const char* program, const std::vector<std::string>& arguments,
                       const run_surroundings& surroundings = {}) const
    {
        return child_program(bin + "/" + program, arguments, surroundings).finish();
    }
    program_result view(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {}) const
    {
        return run("exec_show_stats_kav", arguments, surroundings);
    }
};

struct attack
{
    const char* what;
    // Returns an empty text, or a description of what succeeded.
    std::string (*run)(const hostile_place& place);
};

// Attacks on the identity of the engine and on the right to stop it.
const std::vector<attack>& attacks_on_trust();

// A process of the neighbour, which exists until the end of this object. It has finished its work when the constructor
// returns, unless the work is endless.
class neighbour : public forked_process
{
public:
    explicit neighbour(const std::function<void()>& work, bool b_endless = false, gid_t group = neighbour_group);
};
