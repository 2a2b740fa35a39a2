// The buffered stream base and the read-only stream that carries a datagram.
#include "Support.h"

#include "filesystem/Stream.h"

#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace {

using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using support::Bytes;

// clang-format off
template <typename T>
concept HasPublicBuffer = requires(T& t) { t._buffer; };
// clang-format on

static_assert(!HasPublicBuffer<Stream> && !HasPublicBuffer<ReadOnlyStream>);
static_assert(std::is_same_v<decltype(std::declval<Stream&>().Write(nullptr, 0)), void>);
static_assert(std::is_same_v<decltype(std::declval<const Stream&>().GetBufferData()), const unsigned char*>);
// Only an explicit test turns a stream into a bool.
static_assert(std::is_constructible_v<bool, const Stream&> && !std::is_convertible_v<const Stream&, bool>);
static_assert(std::is_base_of_v<Stream, ReadOnlyStream> && std::has_virtual_destructor_v<Stream>);

// Sees the buffer that derived classes (the sockets) read directly.
class ProbeStream : public Stream {
public:
    using Stream::Stream;
    const std::vector<unsigned char>& Buffer() const { return _buffer; }
};

void Put(Stream& stream, const Bytes& bytes) { stream.Write(bytes.data(), bytes.size()); }

Bytes Contents(const Stream& stream)
{
    const unsigned char* data = stream.GetBufferData();
    return stream.GetBufferSize() == 0 ? Bytes() : Bytes(data, data + stream.GetBufferSize());
}

class StreamTest : public testing::TestWithParam<unsigned long> {};

TEST_P(StreamTest, WritesAccumulateInOrderAndFlushStartsANewBatch)
{
    ProbeStream stream(GetParam());
    EXPECT_FALSE(static_cast<bool>(stream));
    EXPECT_EQ(stream.GetBufferSize(), 0u);
    EXPECT_FALSE(static_cast<bool>(ProbeStream()));
    Put(stream, {1, 2, 3});
    stream.Write(nullptr, 0);
    Put(stream, {4, 5});
    EXPECT_TRUE(static_cast<bool>(stream));
    EXPECT_EQ(stream.GetBufferSize(), 5u);
    EXPECT_EQ(Contents(stream), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(stream.GetBufferData(), stream.Buffer().data());
    EXPECT_EQ(stream.Buffer(), (Bytes{1, 2, 3, 4, 5}));

    stream.Flush();
    EXPECT_FALSE(static_cast<bool>(stream));
    EXPECT_EQ(stream.GetBufferSize(), 0u);
    EXPECT_TRUE(stream.Buffer().empty());

    Put(stream, {9, 8});
    EXPECT_TRUE(static_cast<bool>(stream));
    EXPECT_EQ(Contents(stream), (Bytes{9, 8}));

    // A large write after small ones keeps every byte in place.
    const Bytes large = support::RandomBytes(100000);
    Put(stream, large);
    ASSERT_EQ(stream.GetBufferSize(), 2 + large.size());
    EXPECT_EQ(Bytes(stream.Buffer().begin() + 2, stream.Buffer().end()), large);
}

INSTANTIATE_TEST_SUITE_P(Sizes, StreamTest, testing::Values(0ul, 1ul, 4096ul));

// Reading in chunks of every size delivers the bytes in order; a read that
// asks for more than is left fails whole, and the rest is still there.
class ReadOnlyChunkTest : public testing::TestWithParam<size_t> {};

TEST_P(ReadOnlyChunkTest, ReadsInOrderAndRefusesToReadPastTheEnd)
{
    const Bytes bytes = support::RandomBytes(10, 7);
    ReadOnlyStream stream{Bytes(bytes)};
    EXPECT_EQ(stream.GetBufferSize(), bytes.size());
    EXPECT_EQ(Contents(stream), bytes);
    const size_t chunk = GetParam();
    Bytes seen;
    while (stream.GetBufferSize() >= chunk) {
        Bytes out(chunk);
        stream.Read(out.data(), out.size());
        seen.insert(seen.end(), out.begin(), out.end());
        EXPECT_EQ(stream.GetBufferSize(), bytes.size() - seen.size());
        if (stream.GetBufferSize() != 0) {
            EXPECT_EQ(*stream.GetBufferData(), bytes[seen.size()]);
        }
    }
    const size_t left = stream.GetBufferSize();
    Bytes out(chunk + 1, 0xEE);
    EXPECT_THROW(stream.Read(out.data(), left + 1), std::out_of_range);
    EXPECT_EQ(out, Bytes(chunk + 1, 0xEE)) << "a failed read copied bytes";
    EXPECT_EQ(stream.GetBufferSize(), left);

    stream.Read(out.data(), left);
    seen.insert(seen.end(), out.begin(), out.begin() + static_cast<long>(left));
    EXPECT_EQ(seen, bytes);
    EXPECT_FALSE(static_cast<bool>(stream));
    EXPECT_NO_THROW(stream.Read(out.data(), 0));
    EXPECT_THROW(stream.Read(out.data(), 1), std::out_of_range);
    EXPECT_FALSE(static_cast<bool>(ReadOnlyStream(Bytes())));
}

INSTANTIATE_TEST_SUITE_P(Chunks, ReadOnlyChunkTest, testing::Values(1u, 3u, 4u, 10u));

class ReadOnlyStreamTest : public testing::Test {
protected:
    const Bytes _bytes = support::RandomBytes(10, 7);
    ReadOnlyStream _stream{Bytes(_bytes)};
};

TEST_F(ReadOnlyStreamTest, RefusesWritesAndKeepsItsContent)
{
    unsigned char first = 0;
    _stream.Read(&first, 1);
    const unsigned char more[3] = {1, 2, 3};
    EXPECT_THROW(_stream.Write(more, sizeof(more)), std::logic_error);
    Stream& base = _stream;
    EXPECT_THROW(base.Write(more, sizeof(more)), std::logic_error) << "Write is not dispatched virtually";
    EXPECT_EQ(first, _bytes[0]);
    EXPECT_EQ(Contents(_stream), Bytes(_bytes.begin() + 1, _bytes.end()));
}

TEST_F(ReadOnlyStreamTest, FlushDiscardsTheUnreadBytes)
{
    unsigned char first = 0;
    _stream.Read(&first, 1);
    Stream& base = _stream;
    base.Flush();
    EXPECT_FALSE(static_cast<bool>(_stream));
    EXPECT_EQ(_stream.GetBufferSize(), 0u);
    EXPECT_THROW(_stream.Read(&first, 1), std::out_of_range);
}

TEST_F(ReadOnlyStreamTest, MovedFromStreamIsEmpty)
{
    unsigned char first = 0;
    _stream.Read(&first, 1);
    const Bytes rest(_bytes.begin() + 1, _bytes.end());

    ReadOnlyStream moved(std::move(_stream));
    EXPECT_EQ(Contents(moved), rest);
    EXPECT_EQ(_stream.GetBufferSize(), 0u); // NOLINT(bugprone-use-after-move)
    EXPECT_FALSE(static_cast<bool>(_stream));

    ReadOnlyStream assigned{Bytes{1, 2, 3}};
    assigned = std::move(moved);
    EXPECT_EQ(Contents(assigned), rest);
    EXPECT_EQ(moved.GetBufferSize(), 0u); // NOLINT(bugprone-use-after-move)
    unsigned char out = 0;
    EXPECT_THROW(moved.Read(&out, 1), std::out_of_range);

    Bytes all(rest.size());
    assigned.Read(all.data(), all.size());
    EXPECT_EQ(all, rest);
}

} // namespace
