#include "support/top_app_records.h"

#include "RE_top_app_names.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

RE_stat_app_struct port_record(std::uint16_t port, std::initializer_list<std::pair<RE_stat_app_id, std::uint32_t>> set)
{
    RE_stat_app_struct record{};
    record.m_header.m_server_port = port;
    for (const auto& [id, value] : set) {
        record.m_id_array[id] = value;
    }
    return record;
}

RE_stat_app_struct handle_record(unsigned handle, std::uint32_t traffic)
{
    RE_stat_app_struct record = port_record(0, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, traffic}});
    record.m_header.set_policy_engine_handler(handle);
    return record;
}

RE_kav_peer_id peer_of_hash(std::uint32_t hash)
{
    RE_kav_peer_id id{};
    std::memcpy(id.m_data, &hash, sizeof hash);
    return id;
}

RE_stat_policy_engine_header names_of(const std::string& classifier, const std::string& application)
{
    RE_stat_policy_engine_header names{};
    std::memcpy(names.m_policy_engine_classifier_name, classifier.data(), classifier.size());
    std::memcpy(names.m_policy_engine_application_name, application.data(), application.size());
    return names;
}

std::string log_word(std::uint32_t word)
{
    return {static_cast<char>(word & 255U), static_cast<char>((word >> 8U) & 255U),
            static_cast<char>((word >> 16U) & 255U), static_cast<char>(word >> 24U)};
}

std::string log_array(const std::vector<RE_stat_app_struct>& records)
{
    return {reinterpret_cast<const char*>(records.data()), 100 * records.size()};
}

std::string log_section(const std::vector<named_handle>& names, const std::vector<RE_stat_app_struct>& records)
{
    std::string bytes = log_word(1) + log_word(static_cast<std::uint32_t>(names.size()));
    for (const named_handle& entry : names) {
        bytes += std::string(entry.names.m_policy_engine_application_name, 41);
        bytes += std::string(entry.names.m_policy_engine_classifier_name, 41);
        bytes += log_word(entry.handle);
    }
    return bytes + log_word(static_cast<std::uint32_t>(records.size())) + log_array(records);
}

unsigned drawn(std::mt19937& random, unsigned limit)
{
    return static_cast<unsigned>(random()) % limit;
}

RE_stat_app_struct random_record(std::mt19937& random)
{
    RE_stat_app_struct record{};
    for (std::uint32_t& counter : record.m_id_array) {
        // From tiny values to values whose sums wrap.
        counter = static_cast<std::uint32_t>(random()) >> (drawn(random, 32));
    }
    const std::uint32_t bits[] = {static_cast<std::uint32_t>(random()), static_cast<std::uint32_t>(random()),
                                  static_cast<std::uint32_t>(random())};
    RE_stat_app_header& header = record.m_header;
    std::memcpy(static_cast<void*>(&header), bits, sizeof bits);
    header.set_policy_engine_handler(drawn(random, 8));
    header.set(peer_of_hash(drawn(random, 3)), static_cast<std::uint16_t>(drawn(random, 5)), drawn(random, 2) == 1);
    return record;
}

std::string printed(const std::function<void(FILE*)>& run)
{
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    run(stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

names_in_place::names_in_place(const std::vector<RE_stat_policy_engine_header>& names)
{
    unsigned handle = 0;
    for (const RE_stat_policy_engine_header& entry : names) {
        g_stat_handler_policy_engine_map[handle] = entry;
        g_stat_policy_engine_handler_map[entry] = handle++;
    }
}

names_in_place::~names_in_place()
{
    g_stat_handler_policy_engine_map.clear();
    g_stat_policy_engine_handler_map.clear();
}
