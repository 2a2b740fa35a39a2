// orvun-httpd's request reader (examples/http/Http.h) on arbitrary bytes,
// delivered in arbitrary pieces as receives would bring them. Checks: what
// comes out is the same whatever the pieces; every path stays inside the
// served folder (no "..", "." or empty segment, no leading '/', no NUL); the
// buffer never holds more than it can; errors carry a known status.
//
// Input: one byte N, then N piece sizes (used in turn), then the stream.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzInput.h"
#include "http/Http.h"

namespace {

using examples::http::Parse;
using examples::http::RequestReader;
using fuzz::Check;

void CheckPath(const examples::http::Request& request)
{
    const std::string& path = request.path;
    if (request.refusal != 0) {
        Check(path.empty(), "a refused request kept a path");
        return;
    }
    Check(path.size() <= examples::http::kMaxHead, "path longer than a head");
    Check(path.find('\0') == std::string::npos, "NUL in a path");
    Check(path.empty() || (path.front() != '/' && path.back() != '/'), "path starts or ends with '/'");
    size_t start = 0;
    while (!path.empty() && start <= path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string_view segment(path.data() + start, end - start);
        Check(!segment.empty() && segment != "." && segment != "..", "empty, '.' or '..' segment in a path");
        start = end + 1;
    }
}

// Feeds `stream` to a reader in pieces of the given sizes (cycled; none: as
// much as fits) and lists what comes out, one line per request or error,
// until the connection would close or the bytes run out.
std::string Outcomes(std::string_view stream, const std::vector<size_t>& pieces)
{
    RequestReader reader;
    examples::http::Request request;
    std::string outcomes;
    size_t at = 0;
    for (size_t turn = 0;; ++turn) {
        int status = 0;
        const Parse parse = reader.Next(request, status);
        Check(reader.Buffered() <= examples::http::kReceiveBuffer, "buffer overfull");
        if (parse == Parse::kError) {
            Check(status == 400 || status == 414 || status == 431 || status == 505, "unknown error status");
            return outcomes + "error " + std::to_string(status) + "\n";
        }
        if (parse == Parse::kRequest) {
            CheckPath(request);
            Check(request.minor >= 0 && request.minor <= 9, "minor version out of range");
            Check(!(request.keepAlive && request.hasBody), "kept a connection open with an unread body");
            outcomes += std::to_string(static_cast<int>(request.method)) + " 1." + std::to_string(request.minor) +
                        (request.keepAlive ? " keep" : " close") + (request.hasBody ? " body " : " ") +
                        std::to_string(request.refusal) + (request.wantsFolder ? " folder " : " file ") + request.path +
                        "\n";
            if (!request.keepAlive) {
                return outcomes;
            }
            continue;
        }
        if (at == stream.size()) {
            return outcomes + "more\n";
        }
        Check(reader.Buffered() < examples::http::kMaxHead, "asked for more with a whole head buffered");
        unsigned char* space = reader.Space();
        size_t size = reader.SpaceSize();
        Check(size >= examples::http::kMaxHead, "too little room to receive a head");
        if (!pieces.empty()) {
            size = std::min(size, pieces[turn % pieces.size()]);
        }
        size = std::min(size, stream.size() - at);
        std::memcpy(space, stream.data() + at, size);
        reader.Received(size);
        at += size;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    std::vector<size_t> pieces;
    for (int count = input.Byte() % 16; count > 0; --count) {
        pieces.push_back(input.Byte() + size_t{1});
    }
    const std::vector<unsigned char> bytes = input.Take(size);
    const std::string_view stream(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::string whole = Outcomes(stream, {});
    Check(whole == Outcomes(stream, pieces), "pieces changed what was parsed");
    Check(whole == Outcomes(stream, {1}), "byte-by-byte receives changed what was parsed");
    return 0;
}
