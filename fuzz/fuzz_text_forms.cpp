// Parses any text as a MAC address, an IP address and a peer's identity. A text that is accepted must be printed with
// the same value. A text that is refused must change nothing.
#include "RE_context_id.h"
#include "RE_ip.h"
#include "RE_top_app_post_process.h"
#include "harness.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    discard_output();
    return 0;
}

namespace {

void expect(bool b_holds)
{
    if (!b_holds) {
        std::abort();
    }
}

void try_mac_id(const char* text)
{
    const unsigned char before[6] = {1, 2, 3, 4, 5, 6};
    RE_mac_id id(before);
    if (!id.set(text)) {
        expect(id == RE_mac_id(before));
        return;
    }
    const std::string printed = id.getString();
    expect(printed.size() == RE_mac_id::text_length);
    RE_mac_id again(before);
    expect(again.set(printed.c_str()) && again == id);
}

void try_ip(const char* text)
{
    const unsigned int ip = string_to_ip(text);
    expect(ip == 0 || string_to_ip(ip_to_string(ip)) == ip);
    expect(ip != 0 || is_ip_martian(htonl(ip), 1));
}

void try_peer(const char* text)
{
    char peer[256] = {}; // as passed by the command line
    std::memcpy(peer, text, strnlen(text, sizeof peer - 1));
    RE_stat_app_struct record{};
    record.m_header.m_kav_peer_id.m_data[0] = 1;
    std::vector<RE_stat_app_struct> kept;
    check_kav_peer_id_string_match_and_push_back(kept, record, peer, 0, true);
    expect(peer[0] != '\0' || kept.size() == 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    text[size] = '\0';
    try_mac_id(text.get());
    try_ip(text.get());
    try_peer(text.get());
    return 0;
}
