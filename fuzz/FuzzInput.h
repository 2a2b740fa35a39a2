// What the fuzz targets share: failing loudly (libFuzzer keeps the input
// that aborted), and reading the fuzzer's bytes front to back.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

[[noreturn]] inline void Fail(const char* what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

inline void Check(bool condition, const char* what)
{
    if (!condition) {
        Fail(what);
    }
}

// Reads the input front to back; zeros once it runs out.
class Input {
public:
    Input(const std::uint8_t* data, size_t size) : _data(data), _size(size) {}
    bool Empty() const { return _at >= _size; }
    std::uint8_t Byte() { return _at < _size ? _data[_at++] : 0; }
    // Up to `count` bytes, fewer at the end of the input.
    std::vector<unsigned char> Take(size_t count)
    {
        count = std::min(count, Left());
        std::vector<unsigned char> bytes(_data + _at, _data + _at + count);
        _at += count;
        return bytes;
    }
    // Text of a length (0 to `most`) chosen by the next byte.
    std::string Text(size_t most)
    {
        const size_t count = std::min<size_t>(Byte() % (most + 1), Left());
        std::string text(reinterpret_cast<const char*>(_data + _at), count);
        _at += count;
        return text;
    }

private:
    size_t Left() const { return _size - std::min(_at, _size); }

    const std::uint8_t* _data;
    size_t _size;
    size_t _at = 0;
};

} // namespace fuzz
