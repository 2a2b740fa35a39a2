// The buffered stream base and the read-only stream that carries a datagram.
#include "support/Common.h"

#include "filesystem/Stream.h"

#include <stdexcept>

namespace {

using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using namespace support;

// Whatever the reserved size, writes accumulate in order (a large one after
// small ones too) and Flush starts a new batch.
TEST(StreamTest, WritesAccumulateInOrderAndFlushStartsANewBatch)
{
    for (const unsigned long reserved : {0ul, 1ul, 4096ul}) {
        Stream stream(reserved);
        EXPECT_FALSE(static_cast<bool>(stream));
        Put(stream, {1, 2, 3});
        stream.Write(nullptr, 0);
        Put(stream, {4, 5});
        EXPECT_TRUE(static_cast<bool>(stream));
        EXPECT_EQ(Buffered(stream), (Bytes{1, 2, 3, 4, 5}));
        stream.Flush();
        EXPECT_FALSE(static_cast<bool>(stream));
        Bytes expected = RandomBytes(100000);
        Put(stream, {9, 8});
        Put(stream, expected);
        expected.insert(expected.begin(), {9, 8});
        EXPECT_EQ(Buffered(stream), expected) << reserved;
    }
}

// Reading in chunks of every size delivers the bytes in order; a read that
// asks for more than is left fails whole, and the rest is still there.
TEST(ReadOnlyStreamTest, ReadsInOrderAndRefusesToReadPastTheEnd)
{
    const Bytes bytes = RandomBytes(10, 7);
    for (const size_t chunk : {1u, 3u, 4u, 10u}) {
        ReadOnlyStream stream{Bytes(bytes)};
        Bytes seen;
        for (Bytes out(chunk); stream.GetBufferSize() >= chunk; seen.insert(seen.end(), out.begin(), out.end())) {
            stream.Read(out.data(), out.size());
        }
        EXPECT_EQ(Buffered(stream), Bytes(bytes.begin() + static_cast<long>(seen.size()), bytes.end()));
        const size_t left = stream.GetBufferSize();
        Bytes out(chunk + 1, 0xEE);
        EXPECT_THROW(stream.Read(out.data(), left + 1), std::out_of_range);
        EXPECT_EQ(out, Bytes(chunk + 1, 0xEE)) << "a failed read copied bytes";
        stream.Read(out.data(), left);
        seen.insert(seen.end(), out.begin(), out.begin() + static_cast<long>(left));
        EXPECT_EQ(seen, bytes) << chunk;
        EXPECT_FALSE(static_cast<bool>(stream));
        EXPECT_NO_THROW(stream.Read(out.data(), 0));
        EXPECT_THROW(stream.Read(out.data(), 1), std::out_of_range);
    }
}

// Writes are refused (through the base too) and leave the content; moves
// leave the source empty; Flush discards the unread bytes.
TEST(ReadOnlyStreamTest, RefusesWritesAndHandsItsBytesOnOnce)
{
    const Bytes bytes = RandomBytes(10, 7);
    ReadOnlyStream stream{Bytes(bytes)};
    unsigned char first = 0;
    stream.Read(&first, 1);
    EXPECT_THROW(static_cast<Stream&>(stream).Write(&first, 1), std::logic_error) << "Write is not virtual";
    const Bytes rest(bytes.begin() + 1, bytes.end());
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
