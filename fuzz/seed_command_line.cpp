// Creates the seeds of fuzz_command_line: one per command, with its words separated by NULs.
#include "seeds.h"

#include <algorithm>

int main(int argc, char** argv)
{
    const std::string folder = seed_folder(argc, argv);
    const struct
    {
        const char* name;
        std::string words;
    } seeds[] = {
        {"config", "config"},
        {"brief_config", "brief-config"},
        {"tech_support", "tech-support"},
        {"global_info", "global-info"},
        {"global_detail", "global-detail"},
        {"nack", "nack"},
        {"kav_bypass", "kav-bypass detail"},
        {"peer_mac_id", "peer mac-id 02:00:00:00:00:01 detail"},
        {"peer_number", "peer no 11 ctx-id 1 nack"},
        {"peer_ip", "peer ip 10.0.0.1"},
        {"peer_unknown", "peer nonsense"},
        {"conn", "conn"},
        {"conn_filters", "conn client-ip 10.1.0.1 client-port 40001 server-ip 10.2.0.1 server-port 80 peer-no 11"},
        {"conn_last", "conn last detail"},
        {"conn_id", "conn id 100 nack active"},
        {"connection", "connection client-ip a010001 server-ip a020001 client-port 9c41 server-port 50 detail active "
                       "last peer-no b"},
        {"connection_id", "connection id 65"},
        {"top_app", "top-app top 2 detail peer 1"},
        {"top_app_log", "top-app from-file log detail"},
        {"save_file", "save-file file"},
        {"read_file", "read-file saved"},
        {"read_no_file", "read-file none"},
        {"unknown", "nonsense"},
    };
    for (const auto& seed : seeds) {
        std::string words = seed.words;
        std::replace(words.begin(), words.end(), ' ', '\0');
        write_seed(folder, seed.name, words);
    }
    return 0;
}
