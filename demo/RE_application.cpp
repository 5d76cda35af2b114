#include "RE_application.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace {

enum application_index : std::size_t
{
    other,
    web,
    documents,
    backup,
    software,
    streaming,
    database,
    mail,
    application_count,
};

constexpr std::array<RE_application, application_count> applications{{
    {other, 9000, "Other", "Other"},
    {web, 80, "Web", "HTTP"},
    {documents, 445, "File-System", "CIFS"},
    {backup, 873, "Replication", "Rsync"},
    {software, 2049, "File-System", "NFS"},
    {streaming, 554, "Streaming", "RTSP"},
    {database, 5432, "SQL", "PostgreSQL"},
    {mail, 25, "Email", "SMTP"},
}};

struct known_extension
{
    std::string_view extension;
    application_index application;
};

constexpr auto known_extensions = std::to_array<known_extension>({
    {"html", web},       {"htm", web},       {"css", web},        {"js", web},          {"json", web},
    {"xml", web},        {"svg", web},       {"txt", documents},  {"md", documents},    {"pdf", documents},
    {"doc", documents},  {"odt", documents}, {"conf", documents}, {"gz", backup},       {"xz", backup},
    {"bz2", backup},     {"zst", backup},    {"zip", backup},     {"tar", backup},      {"deb", backup},
    {"so", software},    {"o", software},    {"a", software},     {"exe", software},    {"jpg", streaming},
    {"jpeg", streaming}, {"png", streaming}, {"gif", streaming},  {"mp3", streaming},   {"mp4", streaming},
    {"webm", streaming}, {"ogg", streaming}, {"db", database},    {"sqlite", database}, {"sql", database},
    {"eml", mail},       {"mbox", mail},
});

std::string lower_case_extension(const std::string& path)
{
    const std::size_t dot = path.find_last_of("./");
    if (dot == std::string::npos || path[dot] == '/') {
        return {};
    }
    std::string extension = path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return extension;
}

bool starts_with(RE_byte_view bytes, std::string_view text)
{
    return bytes.size() >= text.size() &&
           std::equal(text.begin(), text.end(), bytes.begin(),
                      [](char letter, std::uint8_t byte) { return static_cast<unsigned char>(letter) == byte; });
}

application_index classify_content(RE_byte_view beginning)
{
    if (starts_with(beginning, "\177ELF")) {
        return software;
    }
    const bool b_text = std::find(beginning.begin(), beginning.end(), std::uint8_t{0}) == beginning.end();
    return b_text ? documents : other;
}

} // namespace

std::span<const RE_application> all_applications()
{
    return applications;
}

const RE_application& classify(const std::string& path, RE_byte_view beginning)
{
    const std::string extension = lower_case_extension(path);
    for (const known_extension& known : known_extensions) {
        if (known.extension == extension) {
            return applications[known.application];
        }
    }
    return applications[classify_content(beginning)];
}
