// Creates the seeds of fuzz_text_forms: texts that are accepted, and similar ones that are not.
#include "RE_context_id.h"
#include "seeds.h"

int main(int argc, char** argv)
{
    const std::string folder = seed_folder(argc, argv);
    RE_kav_peer_id_t id{};
    for (unsigned char at = 0; at < sizeof id.m_data; ++at) {
        id.m_data[at] = static_cast<unsigned char>(17 * at);
    }
    write_seed(folder, "mac_id", RE_mac_id(id.m_data).getString());
    write_seed(folder, "mac_id_upper", std::string("AA:BB:CC:DD:EE:FF"));
    write_seed(folder, "mac_id_short", std::string("00:11:22:33:44:5"));
    write_seed(folder, "mac_id_blank", std::string("00: 1:22:33:44:55"));
    write_seed(folder, "peer_id", RE_kav_peer_id(id).getString());
    write_seed(folder, "peer_hash", std::string("65536"));
    write_seed(folder, "ip", std::string("10.1.2.3"));
    write_seed(folder, "ip_octal", std::string("010.1.2.3"));
    write_seed(folder, "ip_large", std::string("256.1.2.3"));
    return 0;
}
