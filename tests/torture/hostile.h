// Attacks by other users of the machine, and what they need. A table of attacks is run by the campaign
// hostile-neighbours, against the programs in any folder.
#pragma once

#include "support/forked_process.h"
#include "torture.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// The neighbour: a user that owns nothing, and a group that may be let in.
constexpr uid_t neighbour_user = 65534;
constexpr gid_t neighbour_group = 65534;
constexpr gid_t operators = 4711;

// Where an attack takes place: a process of root's with a /dev and a /run of its own.
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
    // Returns nothing, or what got through.
    std::string (*run)(const hostile_place& place);
};

// Whose engine is it, and who may stop it.
const std::vector<attack>& attacks_on_trust();

// A process of the neighbour's, which is there until the end of this object. It has done its work when the constructor
// returns, unless it goes on without end.
class neighbour : public forked_process
{
public:
    explicit neighbour(const std::function<void()>& work, bool b_endless = false, gid_t group = neighbour_group);
};
