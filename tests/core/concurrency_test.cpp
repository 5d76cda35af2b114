// An engine opens, closes and reuses slots as fast as it can while readers read. Every field of a tenant is derived
// from one number, so that fields of different tenants are noticed.
#include "support/engine_fixture.h"

#include "RE_image_reader.h"

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <random>
#include <thread>

namespace {

// Reads the engine's own mapping, because a thread sanitizer identifies memory by its address.
class reader_of_the_engines_mapping : public RE_image_reader
{
public:
    explicit reader_of_the_engines_mapping(const std::string& segment)
    {
        std::FILE* const maps = std::fopen("/proc/self/maps", "r");
        char line[1024];
        while (maps != nullptr && m_base == nullptr && std::fgets(line, sizeof line, maps) != nullptr) {
            std::uintptr_t start = 0;
            std::uintptr_t end = 0;
            char access[8] = {};
            if (std::string(line).find(segment) != std::string::npos &&
                std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %7s", &start, &end, access) == 3 &&
                std::string(access) == "rw-s") {
                m_base = reinterpret_cast<unsigned char*>(start);
            }
        }
        if (maps != nullptr) {
            std::fclose(maps);
        }
    }
    int open() override
    {
        if (m_base == nullptr) {
            return -1;
        }
        RE_stat_image image;
        const auto size = reinterpret_cast<const RE_image_header*>(m_base)->total_size;
        const int error = image.attach(m_base, size, RE_image_kind::live);
        if (error == 0) {
            begin(image);
        }
        return error;
    }
    int close() override
    {
        end();
        return 0;
    }

protected:
    std::unique_ptr<writable_image> open_writable() override
    {
        auto target = std::make_unique<writable_image>();
        target->image = image();
        return target;
    }

private:
    unsigned char* m_base = nullptr;
};

class concurrency_test : public engine_test
{
protected:
    static constexpr int peers = 8;
    static constexpr int conns = 16;

    static constexpr std::chrono::milliseconds duration{b_under_a_sanitizer ? 3000 : 1500};

    void start_engine()
    {
        start({peers, conns, 4, 32});
        m_end = std::chrono::steady_clock::now() + duration;
    }
    bool is_over() const { return std::chrono::steady_clock::now() >= m_end; }

    // Does everything that an engine does until the time is over.
    void run_engine();
    // Reads everything once. Adds inconsistent records to `wrong` and the number of records read to `seen`.
    void look(RE_stat_reader& any);
    void look_at_conn(RE_stat_reader& any, int slot);
    void look_at_peer(RE_stat_reader& any, int slot);
    void look_at_nacks(RE_stat_reader& any);
    void expect(bool b_right, const char* what)
    {
        if (!b_right && ++m_wrong <= 5) {
            ADD_FAILURE() << what;
        }
    }

    std::atomic<int> m_wrong{0};
    std::atomic<long> m_seen_conns{0};
    std::atomic<long> m_seen_peers{0};
    std::atomic<long> m_seen_nacks{0};
    std::atomic<long> m_counters_of_another{0};

private:
    std::chrono::steady_clock::time_point m_end;
};

int peer_number_of(std::uint32_t conn_number)
{
    return static_cast<int>(conn_number * 13 % 1000003);
}

void concurrency_test::run_engine()
{
    std::mt19937 random(1);
    int peer_slots[peers];
    for (std::uint32_t peer = 0; peer < peers; ++peer) {
        peer_slots[peer] = engine.add_peer(static_cast<int>(peer), peer_header_of(peer));
    }
    const int app = engine.find_or_add_app(app_key_of(9));
    std::uint32_t number = 1000;
    while (!is_over()) {
        for (int round = 0; round < 200; ++round) {
            ++number;
            // Each connection has its own peer, so that the connection's number can be found from its peer number.
            const std::size_t turn = number % peers;
            engine.remove_peer(peer_slots[turn]);
            const int peer = engine.add_peer(peer_number_of(number), peer_header_of(number));
            peer_slots[turn] = peer;
            for (int id = 0; id < RE_STAT_PEER_ID_NUM_TOTAL_CONNS; ++id) {
                engine.set_peer_stat(peer, RE_stat_peer_id{id}, number);
            }
            const int slot =
                engine.open_conn(peer, conn_header_of(number), so_header_of(number), static_cast<std::time_t>(number));
            if (slot >= 0) {
                for (int id = 0; id < 12; ++id) {
                    engine.set_conn_stat(slot, RE_stat_conn_id{id}, static_cast<long long>(number) * 1000 + id);
                }
            }
            const int victim = static_cast<int>(random() % conns);
            if (random() % 4 == 0) {
                engine.release_conn(victim);
            } else {
                engine.close_conn(victim, 7);
            }
            engine.add_nack(nack_of(number));
            engine.add_app_conns(app, 1, 1);
            engine.set_config(config_of(number));
            engine.set_bypass({7, 7, RE_bypass_reason::configured, number, number, number, number});
        }
    }
}

void concurrency_test::look_at_conn(RE_stat_reader& any, int slot)
{
    if (!any.is_conn_valid(slot)) {
        return;
    }
    ++m_seen_conns;
    RE_stat_conn_header header{};
    SO_stat_conn_header so_header{};
    std::time_t open_time = 0;
    std::time_t close_time = 0;
    int peer_id = 0;
    any.read_conn_header(slot, header);
    any.read_conn_so_header(slot, so_header);
    any.read_conn_time(slot, open_time, close_time);
    any.read_conn_peer_id(slot, peer_id);
    const auto number = static_cast<std::uint32_t>(header.m_conn_id);
    expect(static_cast<bool>(same_record(header, conn_header_of(number))), "a connection's header");
    expect(static_cast<bool>(same_record(so_header, so_header_of(number))), "a connection's transport header");
    expect(open_time == static_cast<std::time_t>(number), "a connection's open time");
    expect(close_time == 0 || close_time == 7 || close_time > 1600000000, "a connection's close time");
    expect(peer_id == peer_number_of(number), "a connection's peer");
    for (int id = 0; id < 12; ++id) {
        long long value = -1;
        const int result = any.read_conn_stat(slot, id, value);
        if (result == 0) {
            expect(value == 0 || value == static_cast<long long>(number) * 1000 + id, "a connection's counter");
        } else {
            expect(value == 0, "a failed counter");
            ++m_counters_of_another;
        }
    }
}

void concurrency_test::look_at_peer(RE_stat_reader& any, int slot)
{
    if (!any.is_peer_valid(slot)) {
        return;
    }
    ++m_seen_peers;
    RE_stat_peer_header header{};
    int peer_id = 0;
    any.read_peer_header(slot, header);
    any.read_peer_id(slot, peer_id);
    const std::uint32_t number = header.m_peer_ip;
    expect(static_cast<bool>(same_record(header, peer_header_of(number))), "a peer's header");
    expect(number < peers || peer_id == peer_number_of(number), "a peer's number");
    for (int id = 0; id < RE_STAT_PEER_ID_NUM_TOTAL_CONNS; ++id) {
        long long value = -1;
        const int result = any.read_peer_stat(slot, id, value);
        expect(value == 0 || (result == 0 && value == number), "a peer's counter");
    }
}

void concurrency_test::look_at_nacks(RE_stat_reader& any)
{
    RE_stat_nack_header entry{};
    std::int32_t last = -1;
    int walked = 0;
    for (int cursor = any.get_first_nack(); cursor >= 0;) {
        cursor = any.get_next_nack(cursor, entry);
        if (cursor >= 0) {
            expect(static_cast<bool>(same_record(entry, nack_of(static_cast<std::uint32_t>(entry.m_time)))), "a nack");
            expect(entry.m_time > last, "the order of nacks");
            last = entry.m_time;
            ++walked;
        }
    }
    expect(walked <= 32, "the end of the nack log");
    m_seen_nacks += walked;
}

void concurrency_test::look(RE_stat_reader& any)
{
    for (int slot = 0; slot < any.get_max_conn_slots(); ++slot) {
        look_at_conn(any, slot);
    }
    for (int slot = 0; slot < any.get_max_peer_slots(); ++slot) {
        look_at_peer(any, slot);
    }
    look_at_nacks(any);
    RE_stat_app_struct* app = nullptr;
    if (any.read_app_slot(0, app) == 0) {
        expect(app->m_header.m_open_cnt == (app->m_header.m_close_cnt & 0x7fffffU), "an application's two counts");
    }
    if (const RE_stat_config_param* const config = any.get_config_param()) {
        expect(static_cast<bool>(same_record(*config, config_of(static_cast<std::uint32_t>(config->m_max_peer_slots)))),
               "the configuration");
    }
}

TEST_F(concurrency_test, what_is_read_of_a_moving_engine_always_belongs_together)
{
    start_engine();
    std::thread writer([this] { run_engine(); });
    std::vector<std::thread> readers;
    for (int at = 0; at < 2; ++at) {
        readers.emplace_back([this, at] {
            const auto mine = live_reader();
            reader_of_the_engines_mapping same(segment_name());
            RE_stat_reader& any = at == 0 ? *mine : static_cast<RE_stat_reader&>(same);
            if (any.open() != 0) {
                expect(false, "the reader opens");
                return;
            }
            while (!is_over()) {
                look(any);
            }
        });
    }
    writer.join();
    for (std::thread& thread : readers) {
        thread.join();
    }
    EXPECT_EQ(m_wrong, 0);
    EXPECT_GT(m_seen_conns, 1000);
    EXPECT_GT(m_seen_peers, 1000);
    EXPECT_GT(m_seen_nacks, 1000);
    std::printf("%ld connections, %ld peers, %ld nacks, %ld counters refused\n", m_seen_conns.load(),
                m_seen_peers.load(), m_seen_nacks.load(), m_counters_of_another.load());
}

TEST_F(concurrency_test, what_is_saved_of_a_moving_engine_always_belongs_together)
{
    start_engine();
    std::thread writer([this] { run_engine(); });
    reader_of_the_engines_mapping same(segment_name());
    ASSERT_EQ(same.open(), 0);
    int files = 0;
    while (!is_over()) {
        RE_stat_reader& any = files % 2 == 0 ? *reader : static_cast<RE_stat_reader&>(same);
        const std::string path = folder.file("saved");
        EXPECT_EQ(any.save_stats_binary(path.c_str()), 0);
        const auto saved = file_reader(path);
        EXPECT_EQ(saved->open(), 0);
        look(*saved);
        ++files;
    }
    writer.join();
    EXPECT_EQ(m_wrong, 0);
    EXPECT_GT(files, 10);
    EXPECT_GT(m_seen_conns, 50);
    EXPECT_GT(m_seen_peers, 50);
}

TEST_F(concurrency_test, resets_and_openings_beside_a_moving_engine_do_no_harm)
{
    start_engine();
    std::thread writer([this] { run_engine(); });
    reader_of_the_engines_mapping same(segment_name());
    while (!is_over()) {
        EXPECT_EQ(same.open(), 0);
        EXPECT_EQ(reader->open(), 0);
        same.reset_all();
        reader->clear_all();
        same.reset_conn_stat(3);
        reader->reset_peer_stat(3);
        look(same);
        look(*reader);
    }
    writer.join();
    EXPECT_EQ(m_wrong, 0);
}

// Several threads of one engine have their own connections. Another thread adds to any slot.
TEST_F(concurrency_test, threads_of_one_engine_lose_no_count)
{
    start({8, 64, 8, 8});
    int peer_slots[4];
    for (int at = 0; at < 4; ++at) {
        peer_slots[at] = engine.add_peer(at, peer_header_of(static_cast<std::uint32_t>(at)));
    }
    constexpr int rounds = b_under_a_sanitizer ? 1000 : 5000;
    std::atomic<bool> b_done{false};
    std::vector<std::thread> threads;
    for (int at = 0; at < 4; ++at) {
        threads.emplace_back([&, at] {
            for (int round = 0; round < rounds; ++round) {
                const auto number = static_cast<std::uint32_t>(round);
                const int slot = engine.open_conn(peer_slots[at], conn_header_of(number), so_header_of(number), 1);
                for (int id = 0; id < 10; ++id) {
                    engine.add_conn_stat(slot, RE_stat_conn_id{id}, 1 + id);
                }
                engine.set_conn_stat(slot, RE_stat_conn_id{20}, 5);
                engine.set_conn_stat(slot, RE_stat_conn_id{20}, 0);
                engine.add_global(RE_stat_global_id{1}, 1);
                engine.add_app_stat(engine.find_or_add_app(app_key_of(number % 4)), RE_stat_app_id{2}, 1);
                engine.add_nack(nack_of(number));
                if (round % 2 == 0) {
                    engine.release_conn(slot);
                } else {
                    engine.close_conn(slot, 2); // from here on, another thread may use the slot
                }
            }
        });
    }
    std::thread late([&] {
        long long added = 0;
        while (!b_done) {
            engine.add_conn_stat(static_cast<int>(added++ % 64), RE_stat_conn_id{11}, 1);
        }
    });
    std::thread turnover([&] {
        while (!b_done) {
            engine.remove_peer(engine.add_peer(99, peer_header_of(99)));
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    b_done = true;
    late.join();
    turnover.join();
    for (int id = 0; id < 10; ++id) {
        long long value = 0;
        reader->read_global_conn_stat(id, value);
        EXPECT_EQ(value, 4LL * rounds * (1 + id));
        for (const int peer : peer_slots) {
            reader->read_peer_conn_stat(peer, id, value);
            EXPECT_EQ(value, 1LL * rounds * (1 + id));
        }
    }
    long long value = 1;
    reader->read_global_conn_stat(20, value);
    EXPECT_EQ(value, 0);
    reader->read_global_stat(1, value);
    EXPECT_EQ(value, 4 * rounds);
    reader->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, value);
    EXPECT_EQ(value, 4 * rounds);
    EXPECT_EQ(reader->read_global_active_conn_count(), 0);
    std::uint32_t apps = 0;
    for (int slot = 0; slot < 4; ++slot) {
        apps += reader->get_app_id_array(slot)[2];
    }
    EXPECT_EQ(apps, 4U * rounds);
    EXPECT_EQ(header().nacks_logged, 4U * rounds);
}

// Simulates another user with write access, who keeps every record busy and frees one now and then.
TEST_F(concurrency_test, records_that_are_kept_busy_hold_a_reader_for_a_second_at_most_in_all)
{
    constexpr int busy_conns = 200;
    start({8, busy_conns, 4, 32});
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < busy_conns; ++number) {
        engine.open_conn(peer, conn_header_of(number), so_header_of(number), 1);
    }
    unsigned char* const base = map_segment();
    RE_stat_image image;
    ASSERT_EQ(image.attach(base, header().total_size, RE_image_kind::live), 0);
    for (std::uint32_t row = 0; row < image.conns.rows; ++row) {
        store_release(&image.conns[row].sequence, 1U);
    }
    std::atomic<bool> b_done{false};
    std::thread neighbour([&] {
        for (std::uint32_t row = 0; row < image.conns.rows && !b_done; ++row) {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            store_release(&image.conns[row].sequence, 2U);
        }
    });
    const auto begun = std::chrono::steady_clock::now();
    int found = 0;
    for (int slot = 0; slot < busy_conns; ++slot) {
        found += reader->is_conn_valid(slot) ? 1 : 0;
    }
    const auto spent = std::chrono::steady_clock::now() - begun;
    b_done = true;
    neighbour.join();
    EXPECT_GT(found, 0) << "who is soon done is waited for";
    EXPECT_LT(found, busy_conns);
    EXPECT_LT(spent, std::chrono::seconds(b_under_a_sanitizer ? 3 : 1));
}

} // namespace
