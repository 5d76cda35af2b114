// Shared by the tests of the live view: a view, its model, and readings of an engine at times that tests choose.
#pragma once

#include "kavstat_fixture.h"
#include "watch/view.h"

#include <cstring>

using namespace kavstat;

class watch_fixture : public kavstat_test
{
protected:
    watch_fixture() { setenv("TZ", "UTC", 1); }

    static WatchModel::clock::time_point second(double number)
    {
        return WatchModel::clock::time_point() +
               std::chrono::duration_cast<WatchModel::clock::duration>(std::chrono::duration<double>(number));
    }
    void look(double at, bool b_same_engine = true)
    {
        Source source;
        if (const int error = source.open()) {
            model.lose(error, second(at));
            return;
        }
        model.update(source.reader(), view.needs(), b_same_engine, now, second(at));
    }
    // Reads the data that the current page needs.
    void turn_to(int key, double at)
    {
        view.press(key);
        Source source;
        ASSERT_EQ(source.open(), 0);
        model.read(source.reader(), view.needs(), second(at));
    }
    // An engine with two peers and a connection with each.
    void start_small()
    {
        start();
        engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, cache_state);
        for (int number = 1; number <= 2; ++number) {
            RE_stat_peer_header header{};
            header.m_kav_peer_id.m_data[0] = static_cast<unsigned char>(number);
            // Control characters, a wide and a combining character, and bytes that are not UTF-8.
            std::strcpy(header.m_peer_host_name, number == 1 ? "branch-1.example.net"
                                                             : "b\x1B[2J\xE4\xBD\xA0"
                                                               "e\xCC\x81\xFF");
            header.m_b_update_from_active_conn = 1;
            header.m_b_outdated = b_outdated && number == 2;
            const int peer = engine.add_peer(number, header);
            RE_stat_conn_header ends{};
            ends.m_conn_id = 100 + number;
            ends.m_client_ip = 0xC000020A; // 192.0.2.10
            ends.m_client_port = static_cast<std::uint16_t>(50000 + number);
            ends.m_server_ip = 0xC6336414; // 198.51.100.20
            ends.m_server_port = number == 1 ? 443 : 80;
            conns.push_back(engine.open_conn(peer, ends, {}, 1700000300));
        }
    }
    // Connections 0 to count - 1, each in the slot of its number.
    void open_connections(int count)
    {
        const int peer = engine.add_peer(1, {});
        for (int number = 0; number < count; ++number) {
            RE_stat_conn_header header{};
            header.m_conn_id = number;
            conns.push_back(engine.open_conn(peer, header, {}, 5));
            ASSERT_EQ(conns.back(), number);
        }
    }
    void grow(std::size_t conn, RE_stat_conn_id id, long long by) { engine.add_conn_stat(conns[conn], id, by); }

    void press(std::initializer_list<int> keys)
    {
        for (const int key : keys) {
            view.press(key);
        }
    }
    // Returns the lines of the screen without trailing blanks.
    std::vector<std::string> lines(std::size_t width, std::size_t height)
    {
        std::vector<std::string> result;
        for (const WatchLine& line : view.screen(model, width, height)) {
            result.push_back(line.text.substr(0, line.text.find_last_not_of(' ') + 1));
        }
        return result;
    }
    // Returns the lines as one text.
    std::string screen(std::size_t width, std::size_t height)
    {
        std::string result;
        for (const std::string& line : lines(width, height)) {
            result += line + "\n";
        }
        return result;
    }
    std::string json()
    {
        StringSink sink;
        Output output(sink);
        view.write_json(model, output);
        output.flush();
        return sink.text();
    }

    // The figures of the small engine are healthy unless a test changes them.
    RE_CACHE_INIT_STATE cache_state = RE_CACHE_ACTIVE;
    bool b_outdated = false;
    std::vector<int> conns;
    WatchModel model;
    WatchView view{0, 1, false};
};
