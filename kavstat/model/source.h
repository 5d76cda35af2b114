// The source of a command's statistics: the running engine, a saved file, or a recorded moment.
#pragma once

#include "RE_image_reader.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kavstat {

class Source
{
public:
    // file: a saved statistics file; the running engine when there is none.
    explicit Source(std::optional<std::string> file = std::nullopt);
    // A moment that was recorded in this file.
    Source(std::unique_ptr<RE_image_reader> moment, std::string file)
        : m_file(std::move(file)), m_b_recorded(true), m_reader(std::move(moment))
    {}

    bool is_live() const { return !m_file.has_value(); }
    bool is_recorded() const { return m_b_recorded; }
    // The file's name, or "the running engine".
    std::string name() const;

    // Opens the statistics, or opens them again. The running engine is looked up by its name each time, so that a
    // restarted one is found. Returns 0 or an RE_stat_error.
    int open();
    void close() { m_reader->close(); }
    // Why open() failed, for the operator: "no engine is running".
    static std::string reason_of(int error);

    RE_image_reader& reader() { return *m_reader; }
    // Whether both are open on the same segment. An engine that was restarted in between has another one.
    bool is_same_engine(const Source& other) const;

private:
    std::optional<std::string> m_file;
    bool m_b_recorded = false;
    std::unique_ptr<RE_image_reader> m_reader;
};

} // namespace kavstat
