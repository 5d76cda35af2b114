// Statistics that earlier versions of this library saved can still be read.
#include "support/engine_fixture.h"
#include "support/engine_shapes.h"

namespace {

class old_file_test : public segment_test
{
};

TEST_F(old_file_test, of_layout_1_tells_what_its_engine_told)
{
    RE_stat_writer engine;
    engine_shape shape; // of the engine that the file was saved from
    shape.b_first_release = true;
    ASSERT_EQ(publish_sample(engine, shape), 0);
    const auto live = live_reader();
    ASSERT_EQ(live->open(), 0);
    const auto old = file_reader(KAV_TEST_DATA "/statistics.layout-1");
    ASSERT_EQ(old->open(), 0);
    expect_same_statistics(*old, *live);
}

TEST_F(old_file_test, of_layout_1_holds_these_figures)
{
    const auto old = file_reader(KAV_TEST_DATA "/statistics.layout-1");
    ASSERT_EQ(old->open(), 0);
    long long value = 0;
    EXPECT_EQ(old->read_global_stat(RE_STAT_GLOBAL_ID_CACHE_STATE, value), 0);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(old->read_conn_stat(3, 5, value), 0);
    EXPECT_EQ(value, 4005);
    EXPECT_EQ(old->read_peer_stat(1, 7, value), 0);
    EXPECT_EQ(value, 1007);
    RE_stat_conn_header conn{};
    EXPECT_EQ(old->read_conn_header(2, conn), 0);
    EXPECT_EQ(conn.m_conn_id, 102);
    EXPECT_EQ(conn.m_client_ip, 0x0a010002U);
    EXPECT_EQ(all_nacks(*old).size(), 3U);
}

} // namespace
