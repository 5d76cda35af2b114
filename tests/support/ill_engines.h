// Demo engines with illnesses, and the health rules that each of them breaks. Together they break every rule that does
// not need an engine to be stopped or started.
#pragma once

#include <set>
#include <string>
#include <vector>

// An engine that is ill for a while, and the rules that it breaks.
struct ill_engine
{
    const char* illnesses;
    std::set<std::string> rules;
    std::set<std::string> side_effects = {}; // may be broken as well
    // Broken as well, but kavstat health may not name them.
    std::set<std::string> alerts = {};
    std::vector<std::string> arguments = {"--rate", "2", "--peers", "1"};
};

const std::vector<ill_engine>& ill_engines();
// The command line of the demo engine. Its illnesses last from one SIGUSR1 to the next.
std::vector<std::string> arguments_of(const ill_engine& engine);
