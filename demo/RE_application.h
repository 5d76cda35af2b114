// The applications that the engine tells apart by what they transfer.
#pragma once

#include "RE_bytes.h"

#include <string>

struct RE_application
{
    std::uint16_t handler;     // its number in statistics and logs
    std::uint16_t server_port; // where its servers listen
    const char* name;
    const char* classifier; // what recognises its traffic
};

// All of them; handlers count from 0 in this order.
std::span<const RE_application> all_applications();

// Guesses from a file's name and, where the name says nothing, from its first bytes.
const RE_application& classify(const std::string& path, RE_byte_view beginning);
