// The three scopes of connection counters: the reader operation that each one uses, and the order of the virtual
// operations.
#include "RE_conn_slot.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace {

// Returns the function at an index of an object's virtual table.
template <typename function>
function virtual_operation(const RE_conn_slot& object, std::size_t place)
{
    const void* const* table = nullptr;
    std::memcpy(&table, static_cast<const void*>(&object), sizeof table);
    function operation = nullptr;
    std::memcpy(&operation, table + place, sizeof operation);
    return operation;
}

using get_operation = long long (*)(const RE_conn_slot*, int);
using is_aggregated_operation = bool (*)(const RE_conn_slot*);
using destroy_operation = void (*)(RE_conn_slot*);

// Counts how it was destroyed.
class mortal_slot : public RE_conn_slot
{
public:
    static int destructions;
    static int deallocations;

    long long get(int id) const override { return id; }
    bool is_aggregated() const override { return false; }
    ~mortal_slot() override { ++destructions; }
    static void operator delete(void* memory)
    {
        ++deallocations;
        ::operator delete(memory);
    }
};

int mortal_slot::destructions = 0;
int mortal_slot::deallocations = 0;

class conn_slot : public view_test
{
protected:
    conn_slot()
    {
        reader.global_conn_stats[5] = 100;
        reader.peers.resize(3);
        reader.peers[2].conn_stats[5] = 200;
        reader.conns.resize(3);
        reader.conns[2].stats[5] = 300;
    }
};

} // namespace

TEST_F(conn_slot, global_reads_the_engines_connection_counter)
{
    EXPECT_EQ(RE_global_conn_slot().get(5), 100);
    EXPECT_EQ(reader.calls, std::vector<std::string>{"read_global_conn_stat 5"});
}

TEST_F(conn_slot, peer_and_connection_of_the_same_index_read_different_reader_operations)
{
    EXPECT_EQ(RE_peer_conn_slot(2).get(5), 200);
    EXPECT_EQ(RE_conn_conn_slot(2).get(5), 300);
    EXPECT_EQ(reader.calls, (std::vector<std::string>{"read_peer_conn_stat 2 5", "read_conn_stat 2 5"}));
}

TEST_F(conn_slot, global_and_peer_are_aggregated_and_a_connection_is_not)
{
    EXPECT_TRUE(RE_global_conn_slot().is_aggregated());
    EXPECT_TRUE(RE_peer_conn_slot(2).is_aggregated());
    EXPECT_FALSE(RE_conn_conn_slot(2).is_aggregated());
}

TEST_F(conn_slot, two_gets_of_one_counter_both_go_to_the_reader)
{
    reader.on_read = [this] { ++reader.global_conn_stats[5]; };
    const RE_global_conn_slot slot;
    EXPECT_EQ(slot.get(5), 101);
    EXPECT_EQ(slot.get(5), 102);
    EXPECT_EQ(reader.count("read_global_conn_stat 5"), 2);
}

TEST_F(conn_slot, failing_reader_gives_0)
{
    reader.b_failing = true;
    EXPECT_EQ(RE_global_conn_slot().get(5), 0);
    EXPECT_EQ(RE_peer_conn_slot(2).get(5), 0);
    EXPECT_EQ(RE_conn_conn_slot(2).get(5), 0);
}

TEST_F(conn_slot, bad_slots_and_ids_are_left_to_the_reader)
{
    EXPECT_EQ(RE_peer_conn_slot(-1).get(5), 0);
    EXPECT_EQ(RE_conn_conn_slot(2).get(-7), 0);
    EXPECT_EQ(reader.calls, (std::vector<std::string>{"read_peer_conn_stat -1 5", "read_conn_stat 2 -7"}));
}

TEST_F(conn_slot, holds_nothing_but_its_index)
{
    EXPECT_TRUE(std::is_abstract_v<RE_conn_slot>);
    EXPECT_TRUE(std::has_virtual_destructor_v<RE_conn_slot>);
    EXPECT_EQ(sizeof(RE_conn_slot), sizeof(void*));
    EXPECT_EQ(sizeof(RE_global_conn_slot), sizeof(void*));
    EXPECT_EQ(sizeof(RE_peer_conn_slot), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(RE_conn_conn_slot), 2 * sizeof(void*));
}

TEST_F(conn_slot, virtual_table_starts_with_get_and_is_aggregated_in_every_class)
{
    const RE_global_conn_slot global;
    const RE_peer_conn_slot peer(2);
    const RE_conn_conn_slot conn(2);
    EXPECT_EQ(virtual_operation<get_operation>(global, 0)(&global, 5), 100);
    EXPECT_EQ(virtual_operation<get_operation>(peer, 0)(&peer, 5), 200);
    EXPECT_EQ(virtual_operation<get_operation>(conn, 0)(&conn, 5), 300);
    EXPECT_TRUE(virtual_operation<is_aggregated_operation>(global, 1)(&global));
    EXPECT_TRUE(virtual_operation<is_aggregated_operation>(peer, 1)(&peer));
    EXPECT_FALSE(virtual_operation<is_aggregated_operation>(conn, 1)(&conn));
}

TEST_F(conn_slot, virtual_table_ends_with_the_complete_object_and_the_deleting_destructor)
{
    mortal_slot::destructions = 0;
    mortal_slot::deallocations = 0;

    alignas(mortal_slot) std::byte storage[sizeof(mortal_slot)];
    auto* in_storage = new (static_cast<void*>(storage)) mortal_slot;
    virtual_operation<destroy_operation>(*in_storage, 2)(in_storage);
    EXPECT_EQ(mortal_slot::destructions, 1);
    EXPECT_EQ(mortal_slot::deallocations, 0);

    auto* on_heap = new mortal_slot;
    virtual_operation<destroy_operation>(*on_heap, 3)(on_heap);
    EXPECT_EQ(mortal_slot::destructions, 2);
    EXPECT_EQ(mortal_slot::deallocations, 1);
}
