// Buffered byte streams: the base of every socket class, and the read-only
// stream that carries one received datagram.
//
// Threads: a stream has no lock; one thread at a time uses a given object.
// Ownership: a stream owns its bytes; `ReadOnlyStream` takes its vector over.
#pragma once

#include <stdexcept>
#include <utility>
#include <vector>

#define ORVUN_FS_API __attribute__((visibility("default")))

namespace orvun::filesystem {

// A byte buffer with stream operations. `Write` appends, `Flush` discards
// what was written (derived classes put it somewhere first), `Read` is
// defined by derived classes. Copyable and movable as a value.
class ORVUN_FS_API Stream {
public:
    // An empty stream.
    Stream();
    // `size` is a capacity hint: the buffer reserves that many bytes.
    // Throws std::length_error or std::bad_alloc for an impossible size.
    explicit Stream(unsigned long size);
    Stream(const Stream&) = default;
    Stream(Stream&&) noexcept = default;
    Stream& operator=(const Stream&) = default;
    Stream& operator=(Stream&&) noexcept = default;
    virtual ~Stream();

    // Appends `size` bytes from `data` to the buffer. Throws allocation
    // failures, leaving the buffer as it was.
    virtual void Write(const unsigned char* data, unsigned long size);
    // The base stream has nothing to read: throws std::logic_error.
    virtual void Read(unsigned char* data, unsigned long size);
    // Discards the buffered bytes.
    virtual void Flush();
    // The first buffered byte (null or dangling-free only while the buffer is unchanged).
    virtual const unsigned char* GetBufferData() const;
    // Number of buffered bytes.
    virtual unsigned long GetBufferSize() const;
    // True while bytes are buffered.
    virtual explicit operator bool() const { return _buffer.end() != _buffer.begin(); }

protected:
    std::vector<unsigned char> _buffer;
};

// A stream over a byte vector taken over by move, read front to back.
// `GetBufferData`/`GetBufferSize` describe the bytes not read yet.
class ORVUN_FS_API ReadOnlyStream : public Stream {
public:
    explicit ReadOnlyStream(std::vector<unsigned char>&& bytes) noexcept;
    ReadOnlyStream(const ReadOnlyStream&) = default;
    ReadOnlyStream& operator=(const ReadOnlyStream&) = default;
    // A moved-from stream is empty.
    ReadOnlyStream(ReadOnlyStream&& other) noexcept
        : Stream(std::move(other)), _readPosition(std::exchange(other._readPosition, 0))
    {
    }
    ReadOnlyStream& operator=(ReadOnlyStream&& other) noexcept
    {
        Stream::operator=(std::move(other));
        // Only the Stream part of `other` has been moved; its own field is still ours to take.
        _readPosition = std::exchange(other._readPosition, 0); // NOLINT(bugprone-use-after-move)
        return *this;
    }
    ~ReadOnlyStream() override {}

    // Refused: throws std::logic_error.
    void Write(const unsigned char* data, unsigned long size) override;
    // Copies the next `size` unread bytes into `data`. A read past the end
    // throws std::out_of_range and copies nothing.
    void Read(unsigned char* data, unsigned long size) override;
    // Discards every unread byte.
    void Flush() override;
    const unsigned char* GetBufferData() const override;
    unsigned long GetBufferSize() const override;
    explicit operator bool() const override { return GetBufferSize() != 0; }

protected:
    unsigned long _readPosition = 0;
};

// Thrown by `Read` on a stream that can only be written (the UDP sockets).
class ORVUN_FS_API StreamIsWriteOnly : public std::runtime_error {
public:
    StreamIsWriteOnly() : std::runtime_error("Write-Only Stream") {}
    ~StreamIsWriteOnly() override {}
};

} // namespace orvun::filesystem
