// The words that a command takes after its own, as a table: a word, and what it sets among the command's arguments.
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

// Every word of the command line is matched by its beginning alone: "peers" is "peer", "idle" is "id", "none" is "no".
// Scripts rely on it, and it makes the order of the rules part of the grammar.
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

// Takes a value that is more than a number. False after an error, which it has printed.
template <typename Arguments>
using value_function = bool (*)(Arguments& arguments, char* value);

// What a word sets. A flag and a type of report stand alone; a number, a port and what a function takes follow the word
// as its value.
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

// Carries out a rule. value: null for a word that stands alone. False after an error, which has been printed.
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

// Walks the arguments after the command word. False after an error, which has been printed. invalid_text: begins the
// message about a word that the command does not know, which the usage text follows. Null for a command that passes
// over such words and never prints the usage text.
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
