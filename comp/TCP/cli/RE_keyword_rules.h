// The words that may follow a command word, as a table: each word, and which of the command's arguments it sets.
#pragma once

#include "RE_exec_show_stats_kav.h"
#include "RE_stat_records.h"
#include "RE_viewer_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <variant>

// An argument matches a keyword if it begins with it: "peers" matches "peer", "idle" matches "id", "none" matches "no".
// Scripts rely on this, so the order of the rules is part of the grammar.
inline bool is_keyword(const char* argument, const char* keyword)
{
    return std::strncmp(argument, keyword, std::strlen(keyword)) == 0;
}

inline int decimal(const char* text)
{
    return low32(std::strtol(text, nullptr, 10));
}

inline unsigned short low16(int value)
{
    return static_cast<unsigned short>(value);
}

inline void print_missing_value(const char* keyword)
{
    std::printf("parameter to %s is NULL\n", keyword);
}

// Parses a value that is more than a number. Returns false after an error, which it has printed.
template <typename Arguments>
using value_function = bool (*)(Arguments& arguments, char* value);

// What a word sets. A flag and a report type have no value. A number, a port and a function take the next word as their
// value.
template <typename Arguments>
using keyword_target = std::variant<bool Arguments::*, RE_show_type, int Arguments::*, unsigned short Arguments::*,
                                    value_function<Arguments>>;

template <typename Arguments>
struct keyword_rule
{
    const char* keyword;
    keyword_target<Arguments> target;

    bool takes_value() const
    {
        return !std::holds_alternative<bool Arguments::*>(target) && !std::holds_alternative<RE_show_type>(target);
    }
};

// Applies a rule. value: null for a word without a value. Returns false after an error, which has been printed.
template <typename Arguments>
bool set_target(const keyword_target<Arguments>& target, Arguments& arguments, char* value)
{
    if (const auto* const flag = std::get_if<bool Arguments::*>(&target)) {
        arguments.*(*flag) = true;
    } else if (const auto* const type = std::get_if<RE_show_type>(&target)) {
        arguments.type = *type;
    } else if (const auto* const number = std::get_if<int Arguments::*>(&target)) {
        arguments.*(*number) = decimal(value);
    } else if (const auto* const port = std::get_if<unsigned short Arguments::*>(&target)) {
        arguments.*(*port) = low16(decimal(value));
    } else {
        return std::get<value_function<Arguments>>(target)(arguments, value);
    }
    return true;
}

// Parses the arguments after the command word. Returns false after an error, which has been printed. invalid_text: the
// beginning of the message about an unknown word, which is followed by the usage text. If it is null, unknown words are
// ignored and the usage text is never printed.
template <typename Arguments, std::size_t count>
bool parse_keywords(int argc, char** argv, const keyword_rule<Arguments> (&rules)[count], const char* invalid_text,
                    Arguments& arguments)
{
    for (int at = 2; at < argc; ++at) {
        const auto* const rule = std::find_if(std::begin(rules), std::end(rules), [&](const auto& candidate) {
            return is_keyword(argv[at], candidate.keyword);
        });
        if (rule == std::end(rules)) {
            if (invalid_text == nullptr) {
                continue;
            }
            std::printf("%s: %s\n", invalid_text, argv[at]);
            show_usage();
            return false;
        }
        char* value = nullptr;
        if (rule->takes_value()) {
            if (at + 1 == argc) {
                print_missing_value(invalid_text == nullptr ? rule->keyword : argv[at]);
                if (invalid_text != nullptr) {
                    show_usage();
                }
                return false;
            }
            value = argv[++at];
        }
        if (!set_target(rule->target, arguments, value)) {
            return false;
        }
    }
    return true;
}
