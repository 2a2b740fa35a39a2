// Random operation sequences on Stream and ReadOnlyStream, each checked
// against a plain model (a byte vector, and a read position for the
// read-only stream), through the virtual interface as the sockets use it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "FuzzInput.h"
#include "filesystem/Stream.h"

namespace {

using orvun::filesystem::ReadOnlyStream;
using orvun::filesystem::Stream;
using Bytes = std::vector<unsigned char>;

using fuzz::Check;
using fuzz::Input;

// What a stream must show of its buffer: size, bytes and truth value.
void CheckContent(const Stream& stream, const Bytes& model, const char* what)
{
    Check(stream.GetBufferSize() == model.size(), what);
    Check(static_cast<bool>(stream) == !model.empty(), what);
    Check(model.empty() || std::memcmp(stream.GetBufferData(), model.data(), model.size()) == 0, what);
}

void WritableStream(Input& input)
{
    Stream stream(input.Byte());
    Bytes model;
    CheckContent(stream, model, "new stream not empty");
    while (!input.Empty()) {
        Stream& base = stream;
        switch (input.Byte() % 6) {
        case 0: { // Write appends
            const Bytes bytes = input.Take(input.Byte());
            base.Write(bytes.data(), bytes.size());
            model.insert(model.end(), bytes.begin(), bytes.end());
            CheckContent(stream, model, "Write did not append");
            break;
        }
        case 1: // Flush empties
            base.Flush();
            model.clear();
            CheckContent(stream, model, "Flush left bytes");
            break;
        case 2: { // nothing to read from the base stream
            unsigned char scratch[8];
            bool refused = false;
            try {
                base.Read(scratch, input.Byte() % sizeof(scratch));
            } catch (const std::logic_error&) {
                refused = true;
            }
            Check(refused, "Read on a plain stream did not refuse");
            CheckContent(stream, model, "a refused Read changed the stream");
            break;
        }
        case 3: { // a copy is independent
            Stream copy(stream);
            CheckContent(copy, model, "copy differs");
            const unsigned char extra = 0x5a;
            copy.Write(&extra, 1);
            CheckContent(stream, model, "writing a copy changed the original");
            break;
        }
        case 4: { // moving hands the bytes on
            Stream moved(std::move(stream));
            CheckContent(moved, model, "moved stream differs");
            stream = std::move(moved);
            CheckContent(stream, model, "stream moved back differs");
            break;
        }
        default: { // Write of nothing changes nothing
            base.Write(nullptr, 0);
            CheckContent(stream, model, "empty Write changed the stream");
            break;
        }
        }
    }
}

void ReadOnly(Input& input)
{
    Bytes content = input.Take(input.Byte() * 4u);
    ReadOnlyStream stream{Bytes(content)};
    size_t position = 0;
    auto unread = [&] { return Bytes(content.begin() + static_cast<long>(position), content.end()); };
    CheckContent(stream, unread(), "new read-only stream differs");
    while (!input.Empty()) {
        Stream& base = stream;
        switch (input.Byte() % 6) {
        case 0: { // Read takes the next bytes, or refuses and takes nothing
            const size_t size = input.Byte();
            Bytes got(size + 1, 0xee);
            bool refused = false;
            try {
                base.Read(got.data(), size);
            } catch (const std::out_of_range&) {
                refused = true;
            }
            const size_t left = content.size() - position;
            Check(refused == (size > left), "Read past the end not refused, or a read within refused");
            if (!refused) {
                Check(size == 0 || std::memcmp(got.data(), content.data() + position, size) == 0,
                      "Read gave wrong bytes");
                position += size;
            }
            Check(got[size] == 0xee, "Read wrote past its size");
            break;
        }
        case 1: { // Write is refused
            const unsigned char byte = 1;
            bool refused = false;
            try {
                base.Write(&byte, 1);
            } catch (const std::logic_error&) {
                refused = true;
            }
            Check(refused, "Write on a read-only stream did not refuse");
            break;
        }
        case 2: // Flush discards what is unread
            base.Flush();
            content.clear();
            position = 0;
            break;
        case 3: { // a copy reads on its own
            ReadOnlyStream copy(stream);
            CheckContent(copy, unread(), "copy differs");
            if (copy.GetBufferSize() > 0) {
                unsigned char byte;
                copy.Read(&byte, 1);
            }
            break;
        }
        case 4: { // moving leaves the source empty
            ReadOnlyStream moved(std::move(stream));
            CheckContent(moved, unread(), "moved stream differs");
            CheckContent(stream, {}, "moved-from stream not empty");
            stream = std::move(moved);
            break;
        }
        default: { // a fresh content
            content = input.Take(input.Byte());
            position = 0;
            stream = ReadOnlyStream(Bytes(content));
            break;
        }
        }
        CheckContent(stream, unread(), "stream and model differ");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    Input input(data, size);
    if (input.Byte() % 2 == 0) {
        WritableStream(input);
    } else {
        ReadOnly(input);
    }
    return 0;
}
