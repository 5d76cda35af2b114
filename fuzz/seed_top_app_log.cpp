// Creates the seeds of fuzz_top_app_log: small logs as engines write them.
#include "RE_top_app_log_writer.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

RE_top_app_log_name name(unsigned handler, const std::string& application, const std::string& classifier)
{
    RE_top_app_log_name result{handler, {}};
    application.copy(result.names.m_policy_engine_application_name, 41);
    classifier.copy(result.names.m_policy_engine_classifier_name, 41);
    return result;
}

RE_stat_app_struct record(unsigned handler, std::uint16_t port, std::uint32_t kbytes, unsigned char peer)
{
    RE_stat_app_struct result{};
    for (std::uint32_t k = 0; k < RE_STAT_APP_ID_MAX; ++k) {
        result.m_id_array[k] = kbytes + k;
    }
    RE_kav_peer_id id{};
    id.m_data[0] = peer;
    result.m_header.set(id, port, port > 1024);
    result.m_header.set_policy_engine_handler(handler);
    result.m_header.m_open_cnt = 3;
    result.m_header.m_close_cnt = 2;
    return result;
}

void append(const std::string& path, const std::vector<RE_top_app_log_name>& names,
            const std::vector<RE_stat_app_struct>& records)
{
    if (append_top_app_log(path, names, records) != 0) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

void append_bytes(const std::string& path, const void* bytes, std::size_t size)
{
    FILE* const file = std::fopen(path.c_str(), "ab");
    if (file == nullptr || std::fwrite(bytes, 1, size, file) != size || std::fclose(file) != 0) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("seed_top_app_log FOLDER\n", stderr);
        return 1;
    }
    const std::string folder = std::string(argv[1]) + "/";
    const std::vector<RE_top_app_log_name> names{name(3, "HTTP", "Web"), name(7, "SMTP", "Mail")};
    const std::vector<RE_stat_app_struct> records{record(3, 80, 100, 1), record(7, 25, 50, 2), record(3, 8080, 7, 1)};
    for (const char* const seed : {"one_section", "two_sections", "no_records", "no_names", "long_names", "mingled",
                                   "old_layout", "old_layout_behind_empty_section", "wrapping"}) {
        std::remove((folder + seed).c_str());
    }

    append(folder + "one_section", names, records);

    append(folder + "two_sections", names, records);
    append(folder + "two_sections", {name(7, "HTTP", "Web")}, {record(7, 80, 5, 1), record(7, 443, 6, 0)});

    append(folder + "no_records", names, {});
    append(folder + "no_names", {}, records);

    append(folder + "long_names", {name(0, std::string(41, 'a'), std::string(41, 'c'))}, {record(0, 1, 1, 1)});

    append(folder + "mingled", names, records);
    append_bytes(folder + "mingled", records.data(), records.size() * sizeof records[0]);

    append_bytes(folder + "old_layout", records.data(), records.size() * sizeof records[0]);

    append(folder + "old_layout_behind_empty_section", {}, {});
    append_bytes(folder + "old_layout_behind_empty_section", records.data(), records.size() * sizeof records[0]);

    append(folder + "wrapping", names, {record(3, 80, 0xffffffe0U, 1), record(3, 80, 0xffffffe0U, 1)});
    return 0;
}
