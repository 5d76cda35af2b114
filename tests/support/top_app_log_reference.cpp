#include "support/top_app_log_reference.h"

#include "RE_top_app_names.h"
#include "RE_top_app_post_process.h"
#include "support/top_app_records.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace {

class reference_run
{
public:
    reference_run(const std::string& bytes, std::string path, std::string peer, bool detail)
        : m_bytes(bytes), m_path(std::move(path)), m_peer(std::move(peer)), m_b_detail(detail)
    {
        g_stat_handler_policy_engine_map.clear();
        g_stat_policy_engine_handler_map.clear();
        m_outcome.output = "\n";
    }

    log_outcome run(int top)
    {
        if (read_all()) {
            m_outcome.output += printed([&](FILE* out) { process_top_app_vector(out, m_records, top, m_b_detail); });
        }
        return m_outcome;
    }

private:
    // Reads like read(2) from a regular file.
    int read(void* field, std::size_t size)
    {
        const std::size_t count = std::min(size, m_bytes.size() - m_offset);
        std::memcpy(field, m_bytes.data() + m_offset, count);
        m_offset += count;
        return static_cast<int>(count);
    }

    bool read_error(int count)
    {
        m_outcome.messages.push_back("top_app_log read error: read(" + m_path + ") returned " + std::to_string(count) +
                                     " - short read\n");
        return false;
    }

    bool read_all()
    {
        for (;;) {
            std::uint32_t version = 2;
            int count = read(&version, 4);
            if (count == 0) {
                return true;
            }
            if (count != 4) {
                return read_error(count);
            }
            if (version != 1) {
                if (!g_stat_handler_policy_engine_map.empty()) {
                    m_outcome.messages.push_back("top_app_log compatibility error: " + m_path +
                                                 ": Top-App logs of v4.4.1 and v4.4.3 cannot be mingled\n");
                    return false;
                }
                m_offset = 0;
                RE_stat_app_struct record;
                while ((count = read(&record, 100)) == 100) {
                    filter(record);
                }
                return read_error(count);
            }
            if (!read_section()) {
                return false;
            }
        }
    }

    bool read_section()
    {
        std::map<unsigned, RE_stat_policy_engine_header> section;
        std::uint32_t n = 0;
        if (const int count = read(&n, 4); count != 4) {
            return read_error(count);
        }
        for (std::uint32_t i = 0; i < n; ++i) {
            RE_stat_policy_engine_header names;
            std::uint32_t handle = 0;
            if (const int count = read(&names, 82); count != 82) {
                return read_error(count);
            }
            if (const int count = read(&handle, 4); count != 4) {
                return read_error(count);
            }
            section.insert({handle, names});
        }
        std::uint32_t m = 0;
        if (const int count = read(&m, 4); count != 4) {
            return read_error(count);
        }
        for (std::uint32_t i = 0; i < m; ++i) {
            RE_stat_app_struct record;
            if (const int count = read(&record, 100); count != 100) {
                return read_error(count);
            }
            translate(record, section);
            filter(record);
        }
        return true;
    }

    static void translate(RE_stat_app_struct& record, std::map<unsigned, RE_stat_policy_engine_header>& section)
    {
        const RE_stat_policy_engine_header names = section[record.m_header.m_policy_engine_handler];
        const auto known = g_stat_policy_engine_handler_map.find(names);
        unsigned handle = 0;
        if (known != g_stat_policy_engine_handler_map.end()) {
            handle = known->second;
        } else {
            handle = static_cast<unsigned>(g_stat_handler_policy_engine_map.size());
            g_stat_handler_policy_engine_map.insert({handle, names});
            g_stat_policy_engine_handler_map.insert({names, handle});
        }
        record.m_header.m_policy_engine_handler = handle & 0x3ffU;
    }

    bool is_kept(const RE_stat_app_struct& record) const
    {
        if (m_peer.empty()) {
            return true;
        }
        const unsigned char* const b = record.m_header.m_kav_peer_id.m_data;
        char text[80];
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x-%02x%02x%02x%02x%02x%02x-%02x%02x%02x%02x",
                      b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                      b[15]);
        std::uint32_t w[4];
        std::memcpy(w, b, 16);
        const std::uint32_t hash = w[0] ^ w[1] ^ w[2] ^ w[3];
        const long number = std::strtol(m_peer.c_str(), nullptr, 10);
        return m_peer == text || m_peer == std::string(reinterpret_cast<const char*>(b), 16) ||
               (number & 0xffff) == (hash & 0xffff) || (number & 0xffffffffL) == hash;
    }

    void filter(RE_stat_app_struct& record)
    {
        if (is_kept(record)) {
            m_records.push_back(record);
            if (m_b_detail) {
                m_outcome.output += printed([&](FILE* out) { print_top_app_entry(out, m_number, record); });
            }
        }
        ++m_number;
    }

    const std::string& m_bytes;
    std::string m_path;
    std::string m_peer;
    bool m_b_detail;
    std::size_t m_offset = 0;
    int m_number = 0;
    std::vector<RE_stat_app_struct> m_records;
    log_outcome m_outcome;
};

} // namespace

log_outcome read_log_field_by_field(const std::string& bytes, const std::string& path, const std::string& peer,
                                    bool detail, int top)
{
    return reference_run(bytes, path, peer, detail).run(top);
}
