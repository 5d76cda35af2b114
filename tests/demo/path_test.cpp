#include "RE_path.h"

#include "test_bytes.h"

#include <gtest/gtest.h>

namespace {

// One direction between two engines, with default settings that tests change.
class path_fixture
{
public:
    temporary_folder folder;
    RE_lz lz{3};
    RE_chunk_sizes chunk_sizes;
    std::uint64_t encoder_capacity = 4U << 20U;
    RE_decoder_settings settings;
    std::unique_ptr<RE_path> path;
    std::uint32_t sequence = 0;
    RE_byte_buffer arrived;
    RE_encode_result encoded;
    RE_decode_result decoded;

    path_fixture()
    {
        settings.folder = folder.path();
        settings.capacity = 4U << 20U;
        settings.smallest_chunk = chunk_sizes.min;
    }

    RE_frame_header encode(RE_byte_view message, RE_byte_buffer& frame)
    {
        if (path == nullptr) {
            path = std::make_unique<RE_path>(chunk_sizes, encoder_capacity, settings, lz);
        }
        RE_frame_header header;
        header.conn_id = 7;
        header.sequence = ++sequence;
        header.bypass_cause = path->next_bypass_cause();
        encoded = path->encoder().encode(message, header, frame);
        path->on_sent(encoded.in_bytes);
        return header;
    }
    RE_answer decode(RE_byte_view frame)
    {
        decoded = {};
        return path->decoder().decode(frame, arrived, decoded);
    }
    // Sends a message to the other side. Returns the reason why that failed, if it did.
    RE_nack_reason send(RE_byte_view message)
    {
        RE_byte_buffer frame;
        encode(message, frame);
        const RE_answer answer = decode(frame);
        path->on_answer(answer, encoded.in_bytes, 1000);
        return answer.reason;
    }
    // Sends a failed message again, unencoded.
    RE_nack_reason send_again(RE_byte_view message)
    {
        RE_frame_header header;
        header.b_retransmission = true;
        RE_byte_buffer frame;
        path->encoder().encode(message, header, frame);
        return decode(frame).reason;
    }
};

TEST(path, delivers_random_messages_of_every_size_as_they_were_sent)
{
    path_fixture fixture;
    RE_random random(1);
    for (const std::size_t size : {1U, 2U, 63U, 64U, 255U, 256U, 257U, 1023U, 8192U, 8193U, 65'536U, 1'000'000U}) {
        const RE_byte_buffer message = random_bytes(size, random.below(1000));
        EXPECT_EQ(fixture.send(message), RE_nack_reason::none) << size;
        EXPECT_EQ(fixture.arrived, message) << size;
    }
    for (int count = 0; count < 500; ++count) {
        // Parts of only a few texts, so that much data is repeated at other positions.
        const RE_byte_buffer text = random_bytes(40'000, random.below(5));
        const std::size_t begin = random.below(20'000);
        const RE_byte_view message = RE_byte_view(text).subspan(begin, 1 + random.below(20'000));
        ASSERT_EQ(fixture.send(message), RE_nack_reason::none) << count;
        ASSERT_TRUE(std::equal(message.begin(), message.end(), fixture.arrived.begin(), fixture.arrived.end()));
    }
}

TEST(path, delivers_real_data_and_makes_it_smaller)
{
    path_fixture fixture;
    const RE_byte_buffer data = real_bytes(1U << 20U);
    ASSERT_GE(data.size(), 100'000U);
    std::size_t first_time = 0;
    std::size_t second_time = 0;
    for (std::size_t* const out_bytes : {&first_time, &second_time}) {
        for (std::size_t at = 0; at < data.size(); at += 30'000) {
            const std::size_t size = std::min<std::size_t>(30'000, data.size() - at);
            const RE_byte_view message = RE_byte_view(data).subspan(at, size);
            ASSERT_EQ(fixture.send(message), RE_nack_reason::none);
            ASSERT_TRUE(std::equal(message.begin(), message.end(), fixture.arrived.begin(), fixture.arrived.end()));
            *out_bytes += fixture.encoded.out_bytes;
        }
    }
    EXPECT_LT(first_time, data.size() * 9 / 10);
    EXPECT_LT(second_time, data.size() / 20);
}

TEST(path, accounts_for_every_byte)
{
    path_fixture fixture;
    const RE_byte_buffer data = real_bytes(200'000);
    for (std::size_t at = 0; at + 10'000 <= data.size(); at += 10'000) {
        ASSERT_EQ(fixture.send(RE_byte_view(data).subspan(at, 10'000)), RE_nack_reason::none);
        const RE_encode_result& encoded = fixture.encoded;
        const RE_decode_result& decoded = fixture.decoded;
        EXPECT_EQ(encoded.in_bytes, 10'000U);
        EXPECT_EQ(decoded.out_bytes, 10'000U);
        EXPECT_EQ(encoded.out_bytes, encoded.b_deflated ? encoded.lz_out_bytes : encoded.re_out_bytes);
        EXPECT_EQ(decoded.in_bytes, encoded.out_bytes);
        EXPECT_EQ(decoded.re_in_bytes, encoded.re_out_bytes);
        EXPECT_EQ(decoded.lz_in_bytes, encoded.lz_out_bytes);
        EXPECT_EQ(decoded.lz_out_bytes, encoded.lz_in_bytes);
        EXPECT_EQ(decoded.chunks, encoded.chunks);
    }
    EXPECT_EQ(fixture.path->unacknowledged_bytes(), 0U);
}

TEST(path, refuses_a_reference_to_a_chunk_that_was_evicted_and_recovers)
{
    path_fixture fixture;
    fixture.settings.capacity = 64 * 1024; // the sender assumes 4 MB
    const RE_byte_buffer early = random_bytes(30'000, 1);
    ASSERT_EQ(fixture.send(early), RE_nack_reason::none);
    ASSERT_EQ(fixture.send(random_bytes(70'000, 2)), RE_nack_reason::none);

    ASSERT_EQ(fixture.send(early), RE_nack_reason::chunk_missed);
    EXPECT_GT(fixture.encoded.matches, 10U);
    ASSERT_EQ(fixture.send_again(early), RE_nack_reason::none);
    EXPECT_EQ(fixture.arrived, early);

    // The sender now sends the same data as new, and can refer to it from then on.
    ASSERT_EQ(fixture.send(early), RE_nack_reason::none);
    EXPECT_EQ(fixture.encoded.matches, 0U);
    ASSERT_EQ(fixture.send(early), RE_nack_reason::none);
    EXPECT_GT(fixture.encoded.matches, 10U);
    EXPECT_EQ(fixture.arrived, early);
}

TEST(path, notices_by_the_checksum_that_two_chunks_share_a_signature)
{
    path_fixture fixture;
    fixture.settings.signature_bits = 8; // only 256 signatures for about 800 chunks
    std::size_t collisions = 0;
    for (std::uint64_t seed = 0; seed < 50; ++seed) {
        const RE_byte_buffer message = random_bytes(20'000, seed);
        const RE_nack_reason reason = fixture.send(message);
        if (reason != RE_nack_reason::none) {
            ASSERT_EQ(reason, RE_nack_reason::checksum_collision);
            ++collisions;
            ASSERT_EQ(fixture.send_again(message), RE_nack_reason::none);
        }
        ASSERT_EQ(fixture.arrived, message);
    }
    EXPECT_GT(collisions, 20U);
}

TEST(path, waits_until_the_receivers_cache_is_loaded)
{
    path_fixture fixture;
    fixture.settings.load_step = fixture.settings.capacity / 4;
    const RE_byte_buffer message = random_bytes(5000, 1);
    ASSERT_EQ(fixture.send(message), RE_nack_reason::cache_not_ready);
    ASSERT_EQ(fixture.send_again(message), RE_nack_reason::none);
    EXPECT_EQ(fixture.arrived, message);
    EXPECT_EQ(fixture.path->next_bypass_cause(), RE_bypass_cause::remote_cache_not_ready);
    EXPECT_EQ(fixture.path->out_of_sync_count(), 1U);

    // A bypassed message loads the cache further.
    ASSERT_EQ(fixture.send(message), RE_nack_reason::none);
    EXPECT_EQ(fixture.encoded.bypass_cause, RE_bypass_cause::remote_cache_not_ready);
    ASSERT_EQ(fixture.send(message), RE_nack_reason::none);
    ASSERT_EQ(fixture.send(message), RE_nack_reason::none);
    EXPECT_EQ(fixture.encoded.bypass_cause, RE_bypass_cause::none);
    EXPECT_EQ(fixture.encoded.matches, 0U);
}

TEST(path, spares_a_receiver_whose_disk_is_overloaded)
{
    path_fixture fixture;
    fixture.settings.read_budget = {1000, 4000};
    const RE_byte_buffer message = random_bytes(20'000, 1);
    ASSERT_EQ(fixture.send(message), RE_nack_reason::none); // all data is new, so nothing is read
    ASSERT_EQ(fixture.send(message), RE_nack_reason::disk_overloaded);
    ASSERT_EQ(fixture.send_again(message), RE_nack_reason::none);
    for (int count = 0; count < 8; ++count) {
        ASSERT_EQ(fixture.send(message), RE_nack_reason::none);
        EXPECT_EQ(fixture.encoded.bypass_cause, RE_bypass_cause::remote_disk_overloaded);
        EXPECT_EQ(fixture.arrived, message);
    }
    EXPECT_EQ(fixture.send(random_bytes(3000, 2)), RE_nack_reason::none);
    EXPECT_EQ(fixture.encoded.bypass_cause, RE_bypass_cause::none);
}

TEST(path, throws_when_a_message_that_went_around_arrives_damaged)
{
    path_fixture fixture;
    ASSERT_EQ(fixture.send(random_bytes(1000, 1)), RE_nack_reason::none);
    RE_frame_header header;
    header.bypass_cause = RE_bypass_cause::low_compression;
    RE_byte_buffer frame;
    fixture.path->encoder().encode(random_bytes(1000, 2), header, frame);
    frame.back() ^= 1U;
    EXPECT_THROW(fixture.decode(frame), std::runtime_error);
    frame.pop_back();
    EXPECT_THROW(fixture.decode(frame), std::runtime_error);
}

TEST(frame, keeps_every_field_of_header_and_answer)
{
    RE_frame_header header;
    header.b_chunk_records = true;
    header.b_retransmission = true;
    header.bypass_cause = RE_bypass_cause::remote_disk_overloaded;
    header.conn_id = 0x01020304;
    header.sequence = 0xfffffffe;
    header.message_size = 11;
    header.inflated_size = 12;
    header.payload_size = 3;
    header.checksum = 0x0102030405060708;
    RE_byte_buffer frame(RE_frame_header::size + 3);
    write_frame_header(header, frame);
    const RE_frame_header read = read_frame_header(frame);
    EXPECT_TRUE(read.b_chunk_records);
    EXPECT_FALSE(read.b_deflated);
    EXPECT_TRUE(read.b_retransmission);
    EXPECT_EQ(read.bypass_cause, RE_bypass_cause::remote_disk_overloaded);
    EXPECT_EQ(read.conn_id, 0x01020304U);
    EXPECT_EQ(read.sequence, 0xfffffffeU);
    EXPECT_EQ(read.message_size, 11U);
    EXPECT_EQ(read.inflated_size, 12U);
    EXPECT_EQ(read.checksum, 0x0102030405060708U);

    const RE_answer answer{5, 6, RE_nack_reason::chunk_missed, false, 7, 8, {9, 10}};
    const RE_answer read_back = read_answer(write_answer(answer));
    EXPECT_EQ(read_back.conn_id, 5U);
    EXPECT_EQ(read_back.sequence, 6U);
    EXPECT_EQ(read_back.reason, RE_nack_reason::chunk_missed);
    EXPECT_FALSE(read_back.b_cache_ready);
    EXPECT_EQ(read_back.head_clock, 7U);
    EXPECT_EQ(read_back.tail_clock, 8U);
    EXPECT_EQ(read_back.suspects, (std::vector<RE_signature>{9, 10}));
}

} // namespace
