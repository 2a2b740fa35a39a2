#include "filesystem/Stream.h"

#include <cstring>

namespace orvun::filesystem {

Stream::Stream() = default;

Stream::Stream(unsigned long size) { _buffer.reserve(size); }

Stream::~Stream() = default;

void Stream::Write(const unsigned char* data, unsigned long size)
{
    if (size != 0) {
        _buffer.insert(_buffer.end(), data, data + size);
    }
}

void Stream::Read(unsigned char*, unsigned long) { throw std::logic_error("Stream has nothing to read"); }

void Stream::Flush() { _buffer.clear(); }

const unsigned char* Stream::GetBufferData() const { return _buffer.data(); }

unsigned long Stream::GetBufferSize() const { return _buffer.size(); }

ReadOnlyStream::ReadOnlyStream(std::vector<unsigned char>&& bytes) noexcept { _buffer = std::move(bytes); }

void ReadOnlyStream::Write(const unsigned char*, unsigned long) { throw std::logic_error("Write on a ReadOnlyStream"); }

void ReadOnlyStream::Read(unsigned char* data, unsigned long size)
{
    if (size > GetBufferSize()) {
        throw std::out_of_range("ReadOnlyStream: read past the end");
    }
    if (size != 0) {
        std::memcpy(data, _buffer.data() + _readPosition, size);
        _readPosition += size;
    }
}

void ReadOnlyStream::Flush()
{
    Stream::Flush();
    _readPosition = 0;
}

const unsigned char* ReadOnlyStream::GetBufferData() const { return _buffer.data() + _readPosition; }

unsigned long ReadOnlyStream::GetBufferSize() const { return _buffer.size() - _readPosition; }

} // namespace orvun::filesystem
