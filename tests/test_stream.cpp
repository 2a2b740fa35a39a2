// The buffered stream base and the read-only stream that carries a datagram.
#include "support/Common.h"

#include "filesystem/Stream.h"

#include <stdexcept>

namespace {

using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using namespace support;

class StreamTest : public testing::TestWithParam<unsigned long> {};

TEST_P(StreamTest, WritesAccumulateInOrderAndFlushStartsANewBatch)
{
    Stream stream(GetParam());
    EXPECT_FALSE(static_cast<bool>(stream));
    Put(stream, {1, 2, 3});
    stream.Write(nullptr, 0);
    Put(stream, {4, 5});
    EXPECT_TRUE(static_cast<bool>(stream));
    EXPECT_EQ(Buffered(stream), (Bytes{1, 2, 3, 4, 5}));
    stream.Flush();
    EXPECT_FALSE(static_cast<bool>(stream));
    EXPECT_EQ(stream.GetBufferSize(), 0u);
    // A large write after small ones keeps every byte in place.
    const Bytes large = RandomBytes(100000);
    Put(stream, {9, 8});
    Put(stream, large);
    Bytes expected{9, 8};
    expected.insert(expected.end(), large.begin(), large.end());
    EXPECT_EQ(Buffered(stream), expected);
}

INSTANTIATE_TEST_SUITE_P(Sizes, StreamTest, testing::Values(0ul, 1ul, 4096ul));

// Reading in chunks of every size delivers the bytes in order; a read that
// asks for more than is left fails whole, and the rest is still there.
class ReadOnlyChunkTest : public testing::TestWithParam<size_t> {};

TEST_P(ReadOnlyChunkTest, ReadsInOrderAndRefusesToReadPastTheEnd)
{
    const Bytes bytes = RandomBytes(10, 7);
    ReadOnlyStream stream{Bytes(bytes)};
    const size_t chunk = GetParam();
    Bytes seen;
    while (stream.GetBufferSize() >= chunk) {
        Bytes out(chunk);
        stream.Read(out.data(), out.size());
        seen.insert(seen.end(), out.begin(), out.end());
        EXPECT_EQ(Buffered(stream), Bytes(bytes.begin() + static_cast<long>(seen.size()), bytes.end()));
    }
    const size_t left = stream.GetBufferSize();
    Bytes out(chunk + 1, 0xEE);
    EXPECT_THROW(stream.Read(out.data(), left + 1), std::out_of_range);
    EXPECT_EQ(out, Bytes(chunk + 1, 0xEE)) << "a failed read copied bytes";
    stream.Read(out.data(), left);
    seen.insert(seen.end(), out.begin(), out.begin() + static_cast<long>(left));
    EXPECT_EQ(seen, bytes);
    EXPECT_FALSE(static_cast<bool>(stream));
    EXPECT_NO_THROW(stream.Read(out.data(), 0));
    EXPECT_THROW(stream.Read(out.data(), 1), std::out_of_range);
}

INSTANTIATE_TEST_SUITE_P(Chunks, ReadOnlyChunkTest, testing::Values(1u, 3u, 4u, 10u));

// Writes are refused (through the base too) and leave the content; moves
// leave the source empty; Flush discards the unread bytes.
TEST(ReadOnlyStreamTest, RefusesWritesAndHandsItsBytesOnOnce)
{
    const Bytes bytes = RandomBytes(10, 7);
    ReadOnlyStream stream{Bytes(bytes)};
    Stream& base = stream;
    unsigned char first = 0;
    stream.Read(&first, 1);
    const unsigned char more[3] = {1, 2, 3};
    EXPECT_THROW(base.Write(more, sizeof(more)), std::logic_error) << "Write is not dispatched virtually";
    const Bytes rest(bytes.begin() + 1, bytes.end());
    EXPECT_EQ(Buffered(stream), rest);

    ReadOnlyStream moved(std::move(stream));
    EXPECT_EQ(Buffered(moved), rest);
    EXPECT_EQ(stream.GetBufferSize(), 0u); // NOLINT(bugprone-use-after-move)
    ReadOnlyStream assigned{Bytes{1, 2, 3}};
    assigned = std::move(moved);
    EXPECT_EQ(Buffered(assigned), rest);
    EXPECT_EQ(moved.GetBufferSize(), 0u); // NOLINT(bugprone-use-after-move)

    Bytes two(2);
    assigned.Read(two.data(), two.size());
    EXPECT_EQ(two, Bytes(rest.begin(), rest.begin() + 2));
    static_cast<Stream&>(assigned).Flush();
    EXPECT_EQ(assigned.GetBufferSize(), 0u);
    EXPECT_THROW(assigned.Read(&first, 1), std::out_of_range);
}

} // namespace
