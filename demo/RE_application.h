// The applications that the engine distinguishes by the data they transfer.
#pragma once

#include "RE_bytes.h"

#include <string>

struct RE_application
{
    std::uint16_t handler;     // its number in statistics and logs
    std::uint16_t server_port; // the port of its servers
    const char* name;
    const char* classifier; // name of the rule that recognises its traffic
};

// Returns all applications; handlers count from 0 in this order.
std::span<const RE_application> all_applications();

// Guesses the application from a file's name or, if the name does not show it, from the first bytes.
const RE_application& classify(const std::string& path, RE_byte_view beginning);
