// The HTTP/1.1 static-file logic of orvun-httpd, shared with its plain-POSIX
// twin (bench/posix-httpd.cpp) and the request parser's fuzz target, so that
// the servers differ only in their socket layer.
//
//   RequestReader   buffers received bytes and parses one request head at a
//                   time (pipelined requests come out one after another)
//   DecodeTarget    turns a request target into a path below the served
//                   folder, or refuses it
//   Files           finds a file below the folder with openat2(RESOLVE_BENEATH)
//                   and keeps small files in memory, checked on every request
//   Serve           the loop of one connection, over any socket type that
//                   offers Receive / Write / Flush / Drain
//
// Header-only and free of OrvunNet types, so that each user includes it alone.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace examples::http {

// A request line and its headers, with the empty line that ends them, must fit
// in this; beyond it the answer is 414 (no line end yet) or 431.
constexpr size_t kMaxHead = 8192;
// Room for one whole head and more: a receive may bring several pipelined requests.
constexpr size_t kReceiveBuffer = 2 * kMaxHead;
// Files up to this size are read whole and may be kept in memory.
constexpr size_t kSmallFile = size_t{64} * 1024;
// Larger files go out in chunks of this size, one send each.
constexpr size_t kChunk = size_t{64} * 1024;

enum class Method { kGet, kHead, kOther };

struct Request {
    Method method = Method::kOther;
    int minor = 1;          // HTTP/1.minor
    bool keepAlive = true;  // the connection stays open after the answer
    bool hasBody = false;   // Content-Length > 0 or Transfer-Encoding: answered, then the connection closes
    int refusal = 0;        // 0, or the status that refuses the target (400, 403)
    std::string path;       // below the folder: no "", ".", ".." segment, no NUL, no leading '/'; "" is the folder
    bool wantsFolder = false; // the target ended with '/'
};

enum class Parse {
    kNeedMore, // receive more, into Space()
    kRequest,  // a request came out and its bytes were consumed
    kError,    // the head is malformed or too large: answer `status`, then close
};

namespace detail {

inline bool IsTokenChar(unsigned char c)
{
    if (c >= '0' && c <= '9') {
        return true;
    }
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') {
        return true;
    }
    return std::strchr("!#$%&'*+-.^_`|~", c) != nullptr && c != 0;
}

inline bool IsToken(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return IsTokenChar(c); });
}

inline bool EqualsNoCase(std::string_view a, std::string_view b)
{
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; };
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [&lower](char x, char y) { return lower(x) == lower(y); });
}

inline std::string_view Trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

inline int HexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
        return (c | 0x20) - 'a' + 10;
    }
    return -1;
}

// The path of an origin-form or absolute-form target, without query and
// fragment; "" when the target has none.
inline std::string_view TargetPath(std::string_view target)
{
    // Absolute form: the authority is ours whatever it says.
    for (const std::string_view scheme : {std::string_view("http://"), std::string_view("https://")}) {
        if (target.size() >= scheme.size() && EqualsNoCase(target.substr(0, scheme.size()), scheme)) {
            target.remove_prefix(scheme.size());
            const size_t slash = target.find('/');
            target = slash == std::string_view::npos ? std::string_view("/") : target.substr(slash);
            break;
        }
    }
    target = target.substr(0, target.find_first_of("?#"));
    return !target.empty() && target.front() == '/' ? target : std::string_view();
}

// The byte of the escape "%XY" at `at`, or -1 when it is not one.
inline int Escaped(std::string_view text, size_t at)
{
    const int high = at + 2 < text.size() ? HexValue(text[at + 1]) : -1;
    const int low = high >= 0 ? HexValue(text[at + 2]) : -1;
    return low < 0 ? -1 : high * 16 + low;
}

// Appends a decoded segment to `path` and empties it: "" and "." add
// nothing, ".." refuses the path (403).
inline int AddSegment(std::string& segment, std::string& path)
{
    if (segment == "..") {
        return 403;
    }
    if (!segment.empty() && segment != ".") {
        if (!path.empty()) {
            path += '/';
        }
        path += segment;
    }
    segment.clear();
    return 0;
}

} // namespace detail

// Fills `request.path`, `wantsFolder` and `refusal` from the target of a
// request line. Refused: anything but origin form or absolute form (400), a
// bad percent escape (400), and, after decoding, NUL, an encoded '/' and any
// ".." segment (403). Empty and "." segments are dropped, so the path never
// starts with '/'.
inline void DecodeTarget(std::string_view target, Request& request)
{
    request.path.clear();
    request.refusal = 0;
    const std::string_view path = detail::TargetPath(target);
    if (path.empty()) {
        request.refusal = 400;
        return;
    }
    std::string segment;
    for (size_t i = 0; i < path.size() && request.refusal == 0; ++i) {
        if (path[i] == '/') {
            request.refusal = detail::AddSegment(segment, request.path);
            continue;
        }
        if (path[i] != '%') {
            segment += path[i];
            continue;
        }
        const int byte = detail::Escaped(path, i);
        i += 2;
        if (byte < 0) {
            request.refusal = 400;
        } else if (byte == '/' || byte == 0) {
            request.refusal = 403;
        } else {
            segment += static_cast<char>(byte);
        }
    }
    if (request.refusal == 0) {
        request.refusal = detail::AddSegment(segment, request.path);
    }
    if (request.refusal != 0) {
        request.path.clear();
    }
    request.wantsFolder = path.back() == '/' || request.path.empty();
}

namespace detail {

// Takes the first line off `text`, without its "\n" or "\r\n".
inline std::string_view TakeLine(std::string_view& text)
{
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

// "METHOD SP TARGET SP HTTP/1.x": 0, or the status that refuses it.
inline int ParseRequestLine(std::string_view line, Request& request, std::string_view& target)
{
    const size_t firstSpace = line.find(' ');
    const size_t secondSpace = line.find(' ', firstSpace + 1);
    if (firstSpace == std::string_view::npos || secondSpace == std::string_view::npos ||
        line.find(' ', secondSpace + 1) != std::string_view::npos) {
        return 400;
    }
    const std::string_view method = line.substr(0, firstSpace);
    target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    const std::string_view version = line.substr(secondSpace + 1);
    if (!IsToken(method) || target.empty() ||
        std::any_of(target.begin(), target.end(), [](char c) { return c <= ' ' || c == 0x7f; })) {
        return 400;
    }
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    if (version.size() != 8 || version.substr(0, 5) != "HTTP/" || version[6] != '.' || !digit(version[5]) ||
        !digit(version[7])) {
        return 400;
    }
    if (version[5] != '1') {
        return 505;
    }
    request.minor = version[7] - '0';
    request.method = method == "GET" ? Method::kGet : method == "HEAD" ? Method::kHead : Method::kOther;
    return 0;
}

// What the header fields say about the connection and the framing.
struct Fields {
    bool close = false;
    bool keepAlive = false;
    int hosts = 0;
    long long contentLength = -1;
    bool transferEncoding = false;
};

inline bool ParseConnection(std::string_view value, Fields& fields)
{
    while (!value.empty()) {
        const size_t comma = value.find(',');
        const std::string_view option = Trim(value.substr(0, comma));
        value.remove_prefix(comma == std::string_view::npos ? value.size() : comma + 1);
        fields.close = fields.close || EqualsNoCase(option, "close");
        fields.keepAlive = fields.keepAlive || EqualsNoCase(option, "keep-alive");
    }
    return true;
}

// Digits only, and the same value when it comes more than once.
inline bool ParseContentLength(std::string_view value, Fields& fields)
{
    if (value.empty() || value.size() > 18 ||
        !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    long long length = 0;
    for (const char c : value) {
        length = length * 10 + (c - '0');
    }
    if (fields.contentLength >= 0 && fields.contentLength != length) {
        return false;
    }
    fields.contentLength = length;
    return true;
}

// "Name: value"; false when malformed (a folded line starts with a space and is).
inline bool ParseField(std::string_view line, Fields& fields)
{
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || !IsToken(line.substr(0, colon))) {
        return false;
    }
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = Trim(line.substr(colon + 1));
    if (std::any_of(value.begin(), value.end(), [](char c) { return (c < ' ' && c != '\t') || c == 0x7f; })) {
        return false;
    }
    if (EqualsNoCase(name, "host")) {
        ++fields.hosts;
    } else if (EqualsNoCase(name, "connection")) {
        return ParseConnection(value, fields);
    } else if (EqualsNoCase(name, "content-length")) {
        return ParseContentLength(value, fields);
    } else if (EqualsNoCase(name, "transfer-encoding")) {
        fields.transferEncoding = true;
    }
    return true;
}

} // namespace detail

// Parses the head of one request (its bytes, without the empty line that
// ends it): 0 when it is well formed, else the status to answer.
inline int ParseHead(std::string_view head, Request& request)
{
    request = Request{};
    std::string_view target;
    if (const int status = detail::ParseRequestLine(detail::TakeLine(head), request, target); status != 0) {
        return status;
    }
    detail::Fields fields;
    while (!head.empty()) {
        if (!detail::ParseField(detail::TakeLine(head), fields)) {
            return 400;
        }
    }
    if (fields.hosts > 1 || (fields.hosts == 0 && request.minor >= 1)) {
        return 400;
    }
    if (fields.transferEncoding && fields.contentLength >= 0) {
        return 400; // two framings: a smuggling attempt
    }
    request.hasBody = fields.transferEncoding || fields.contentLength > 0;
    request.keepAlive = !fields.close && !request.hasBody && (request.minor >= 1 || fields.keepAlive);
    DecodeTarget(target, request);
    if (request.refusal == 400) {
        request.keepAlive = false;
    }
    return 0;
}

// The receive buffer of one connection and the request heads in it.
//   for (;;) switch (reader.Next(request, status)) {
//   case Parse::kNeedMore: reader.Received(recv(fd, reader.Space(), reader.SpaceSize(), 0)); ...
class RequestReader {
public:
    // Where the next receive goes; at least kMaxHead bytes after kNeedMore.
    unsigned char* Space()
    {
        if (_begin > 0) {
            std::memmove(_buffer.data(), _buffer.data() + _begin, _end - _begin);
            _end -= _begin;
            _begin = 0;
        }
        return _buffer.data() + _end;
    }
    size_t SpaceSize() const { return _buffer.size() - _end; }
    // `count` bytes have arrived at Space(); at most SpaceSize().
    void Received(size_t count) { _end += std::min(count, SpaceSize()); }
    // Bytes received and not consumed yet.
    size_t Buffered() const { return _end - _begin; }

    // The next request, when its head has arrived whole. Empty lines before a
    // request are skipped. A head that does not end within kMaxHead bytes
    // gives kError with 414 (no line end yet) or 431; a malformed one 400 or
    // 505. The decision depends on the bytes alone, never on how they were
    // split into receives.
    Parse Next(Request& request, int& status)
    {
        if (!SkipEmptyLines()) {
            return Parse::kNeedMore;
        }
        const unsigned char* const data = _buffer.data() + _begin;
        const size_t limit = std::min(Buffered(), kMaxHead);
        // A head ends with an empty line: "\n\n" or "\n\r\n".
        for (size_t i = std::max<size_t>(_scanned, 1); i < limit; ++i) {
            if (data[i] != '\n') {
                continue;
            }
            if (data[i - 1] == '\n' || (i >= 2 && data[i - 1] == '\r' && data[i - 2] == '\n')) {
                const size_t headEnd = data[i - 1] == '\r' ? i - 1 : i;
                const std::string_view head(reinterpret_cast<const char*>(data), headEnd);
                _begin += i + 1;
                _scanned = 0;
                status = ParseHead(head, request);
                return status == 0 ? Parse::kRequest : Parse::kError;
            }
        }
        _scanned = limit;
        if (Buffered() < kMaxHead) {
            return Parse::kNeedMore;
        }
        status = std::memchr(data, '\n', kMaxHead) == nullptr ? 414 : 431;
        return Parse::kError;
    }

private:
    // Drops the empty lines before a request; false when a lone "\r" ends the buffer.
    bool SkipEmptyLines()
    {
        while (_begin < _end && (_buffer[_begin] == '\n' || _buffer[_begin] == '\r')) {
            if (_buffer[_begin] == '\r') {
                if (_begin + 1 == _end) {
                    return false;
                }
                if (_buffer[_begin + 1] != '\n') {
                    return true;
                }
                ++_begin;
            }
            ++_begin;
            _scanned = 0;
        }
        return true;
    }

    std::array<unsigned char, kReceiveBuffer> _buffer{};
    size_t _begin = 0;
    size_t _end = 0;
    size_t _scanned = 0; // bytes of the current head already searched for its end
};

inline const char* Reason(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 414: return "URI Too Long";
    case 431: return "Request Header Fields Too Large";
    case 505: return "HTTP Version Not Supported";
    default: return "Internal Server Error";
    }
}

// The content type for a file name's extension.
inline std::string_view ContentType(std::string_view path)
{
    static constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
        {"html", "text/html; charset=utf-8"}, {"htm", "text/html; charset=utf-8"},
        {"css", "text/css; charset=utf-8"},   {"js", "text/javascript; charset=utf-8"},
        {"mjs", "text/javascript; charset=utf-8"}, {"json", "application/json"},
        {"txt", "text/plain; charset=utf-8"}, {"md", "text/plain; charset=utf-8"},
        {"csv", "text/csv; charset=utf-8"},   {"xml", "application/xml"},
        {"svg", "image/svg+xml"},             {"png", "image/png"},
        {"jpg", "image/jpeg"},                {"jpeg", "image/jpeg"},
        {"gif", "image/gif"},                 {"webp", "image/webp"},
        {"ico", "image/x-icon"},              {"pdf", "application/pdf"},
        {"wasm", "application/wasm"},         {"woff", "font/woff"},
        {"woff2", "font/woff2"},              {"mp4", "video/mp4"},
        {"webm", "video/webm"},               {"mp3", "audio/mpeg"},
        {"zip", "application/zip"},           {"gz", "application/gzip"},
        {"tar", "application/x-tar"},
    };
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) {
        const std::string_view extension = path.substr(dot + 1);
        for (const auto& [known, type] : kTypes) {
            if (detail::EqualsNoCase(extension, known)) {
                return type;
            }
        }
    }
    return "application/octet-stream";
}

// "Date: ..." with its line end, formatted once a second per thread.
inline std::string_view DateLine()
{
    thread_local time_t second = -1;
    thread_local std::array<char, 64> text{};
    thread_local size_t size = 0;
    const time_t now = std::time(nullptr);
    if (now != second) {
        second = now;
        tm parts{};
        gmtime_r(&now, &parts);
        size = std::strftime(text.data(), text.size(), "Date: %a, %d %b %Y %H:%M:%S GMT\r\n", &parts);
    }
    return {text.data(), size};
}

// Appends a response head to `out`.
inline void AppendHead(std::string& out, int status, int minor, bool keepAlive, std::string_view type,
                       unsigned long long length, bool allow = false)
{
    out += minor == 0 ? "HTTP/1.0 " : "HTTP/1.1 ";
    out += std::to_string(status);
    out += ' ';
    out += Reason(status);
    out += "\r\nServer: orvun-httpd\r\n";
    out += DateLine();
    out += "Content-Type: ";
    out += type;
    out += "\r\nContent-Length: ";
    out += std::to_string(length);
    if (allow) {
        out += "\r\nAllow: GET, HEAD";
    }
    if (!keepAlive) {
        out += "\r\nConnection: close";
    } else if (minor == 0) {
        out += "\r\nConnection: keep-alive";
    }
    out += "\r\n\r\n";
}

// A descriptor closed when it goes.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : _fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : _fd(other._fd) { other._fd = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(_fd, other._fd);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }
    int Get() const { return _fd; }

private:
    int _fd;
};

// What identifies a file's content: a change of any of these, by a write, a
// replacement or a rename over it, means the kept bytes are stale.
struct FileKey {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    static FileKey Of(const struct stat& info)
    {
        return {info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
    }
    bool operator==(const FileKey& other) const
    {
        return device == other.device && inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
};

// A small file read whole.
struct SmallFile {
    FileKey key;
    std::string body;
    std::string_view type;
};

// What a request for a path found.
struct Found {
    int status = 404;
    std::shared_ptr<const SmallFile> small; // the whole file, when it is small
    Descriptor file;                        // else the open file, sent in chunks
    unsigned long long size = 0;
    std::string_view type;
};

// The files below one folder. Paths are checked lexically (DecodeTarget)
// before they get here, and opened only with openat2(RESOLVE_BENEATH |
// RESOLVE_NO_MAGICLINKS), which also refuses any symbolic link or ".." that
// leads out of the folder. Small files are kept in memory; every request
// first stats its path (one fstatat, following links), and kept bytes are
// served only while the file found there is still the very one they were read
// from, unchanged: same device, inode, size, modification and change times.
// Anything else goes through the checked open again. Any thread.
class Files {
public:
    // `folder` is an open descriptor of the folder; Files does not own it.
    // The cache holds at most `cacheBytes` bytes of file contents.
    explicit Files(int folder, size_t cacheBytes = size_t{32} << 20) : _folder(folder), _cacheBytes(cacheBytes) {}

    Found Find(const std::string& path, bool wantsFolder)
    {
        Found found;
        std::string name = path.empty() ? std::string(".") : path;
        struct stat info {};
        if (::fstatat(_folder, name.c_str(), &info, 0) != 0) {
            found.status = errno == EACCES ? 403 : 404;
            return found;
        }
        if (S_ISDIR(info.st_mode)) {
            name = path.empty() ? std::string("index.html") : path + "/index.html";
            if (::fstatat(_folder, name.c_str(), &info, 0) != 0) {
                found.status = errno == EACCES ? 403 : 404;
                return found;
            }
        } else if (wantsFolder) {
            return found;
        }
        if (!S_ISREG(info.st_mode)) {
            return found;
        }
        if (auto kept = Kept(name, FileKey::Of(info))) {
            found.status = 200;
            found.size = kept->body.size();
            found.type = kept->type;
            found.small = std::move(kept);
            return found;
        }
        Open(name, found);
        return found;
    }

    size_t CachedBytes()
    {
        std::shared_lock<std::shared_mutex> lock(_mutex);
        return _cachedBytes;
    }

private:
    std::shared_ptr<const SmallFile> Kept(const std::string& name, const FileKey& key)
    {
        std::shared_lock<std::shared_mutex> lock(_mutex);
        const auto entry = _cache.find(name);
        if (entry == _cache.end() || !(entry->second->key == key)) {
            return nullptr;
        }
        return entry->second;
    }

    void Open(const std::string& name, Found& found)
    {
        open_how how{};
        how.flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // O_NONBLOCK: a FIFO must not block us
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        long fd = -1;
        for (int attempt = 0; attempt < 3; ++attempt) { // EAGAIN: a rename raced the lookup
            fd = ::syscall(SYS_openat2, _folder, name.c_str(), &how, sizeof(how));
            if (fd >= 0 || errno != EAGAIN) {
                break;
            }
        }
        if (fd < 0) {
            found.status = errno == EACCES ? 403 : 404; // EXDEV, ELOOP: the path leads out
            return;
        }
        found.file = Descriptor(static_cast<int>(fd));
        struct stat info {};
        if (::fstat(found.file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
            found.file = Descriptor();
            return;
        }
        found.status = 200;
        found.type = ContentType(name);
        found.size = static_cast<unsigned long long>(info.st_size);
        if (found.size > kSmallFile) {
            return;
        }
        auto small = std::make_shared<SmallFile>();
        small->key = FileKey::Of(info);
        small->type = found.type;
        small->body.resize(found.size);
        size_t have = 0;
        while (have < small->body.size()) {
            const ssize_t count = ::pread(found.file.Get(), small->body.data() + have, small->body.size() - have,
                                          static_cast<off_t>(have));
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                break;
            }
            have += static_cast<size_t>(count);
        }
        struct stat after {};
        const bool unchanged = have == small->body.size() && ::fstat(found.file.Get(), &after) == 0 &&
                               FileKey::Of(after) == small->key;
        small->body.resize(have); // a file cut short meanwhile: send what was read
        found.size = have;
        found.file = Descriptor();
        if (unchanged && !Recent(info)) {
            Keep(name, small);
        }
        found.small = std::move(small);
    }

    // A file changed within the last second may change again without its
    // times moving (they advance in clock ticks): not kept yet.
    static bool Recent(const struct stat& info)
    {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        return info.st_mtim.tv_sec >= now.tv_sec - 1 || info.st_ctim.tv_sec >= now.tv_sec - 1;
    }

    void Keep(const std::string& name, const std::shared_ptr<const SmallFile>& file)
    {
        std::unique_lock<std::shared_mutex> lock(_mutex);
        auto entry = _cache.find(name);
        if (entry != _cache.end()) {
            _cachedBytes -= entry->second->body.size();
            _cache.erase(entry);
        }
        // Bounded: make room by dropping whatever comes first.
        while (!_cache.empty() && _cachedBytes + file->body.size() > _cacheBytes) {
            _cachedBytes -= _cache.begin()->second->body.size();
            _cache.erase(_cache.begin());
        }
        if (file->body.size() <= _cacheBytes) {
            _cache.emplace(name, file);
            _cachedBytes += file->body.size();
        }
    }

    const int _folder;
    const size_t _cacheBytes;
    std::shared_mutex _mutex;
    std::unordered_map<std::string, std::shared_ptr<const SmallFile>> _cache;
    size_t _cachedBytes = 0;
};

// Answers one parsed request through `peer` (see Serve). Returns false when
// the connection has to close: it asked to, it carried a body, or a send failed.
template <class Peer>
bool Respond(Files& files, const Request& request, Peer& peer, std::string& head)
{
    head.clear();
    if (request.method == Method::kOther || request.refusal != 0) {
        const int status = request.method == Method::kOther ? 405 : request.refusal;
        const std::string body = std::to_string(status) + ' ' + Reason(status) + '\n';
        AppendHead(head, status, request.minor, request.keepAlive, "text/plain; charset=utf-8", body.size(),
                   status == 405);
        if (request.method != Method::kHead) {
            head += body;
        }
        peer.Write(head.data(), head.size());
        return peer.Flush() && request.keepAlive;
    }
    Found found = files.Find(request.path, request.wantsFolder);
    const bool withBody = request.method == Method::kGet;
    if (found.status != 200) {
        const std::string body = std::to_string(found.status) + ' ' + Reason(found.status) + '\n';
        AppendHead(head, found.status, request.minor, request.keepAlive, "text/plain; charset=utf-8", body.size());
        if (withBody) {
            head += body;
        }
        peer.Write(head.data(), head.size());
        return peer.Flush() && request.keepAlive;
    }
    AppendHead(head, 200, request.minor, request.keepAlive, found.type, found.size);
    peer.Write(head.data(), head.size());
    if (found.small) {
        if (withBody) {
            peer.Write(found.small->body.data(), found.small->body.size()); // small: one send with the head
        }
        return peer.Flush() && request.keepAlive;
    }
    if (!peer.Flush()) {
        return false;
    }
    if (!withBody) {
        return request.keepAlive;
    }
    std::unique_ptr<char[]> chunk(new char[kChunk]);
    for (unsigned long long sent = 0; sent < found.size;) {
        const size_t want = static_cast<size_t>(std::min<unsigned long long>(kChunk, found.size - sent));
        const ssize_t count = ::pread(found.file.Get(), chunk.get(), want, static_cast<off_t>(sent));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false; // cut short meanwhile: the promised length cannot be kept
        }
        peer.Write(chunk.get(), static_cast<size_t>(count));
        if (!peer.Flush()) {
            return false;
        }
        sent += static_cast<unsigned long long>(count);
    }
    return request.keepAlive;
}

// Serves one connection until it closes. `Peer` offers
//   size_t Receive(unsigned char* data, size_t size)  // one receive; 0 at the end
//   void Write(const char* data, size_t size)         // buffers
//   bool Flush()                                      // one send of the buffer; false: gone
//   void Drain()                                      // bounded read-and-discard before closing
// and may throw from any of them to end the connection.
template <class Peer>
void Serve(Files& files, Peer& peer)
{
    RequestReader reader;
    Request request;
    std::string head;
    for (;;) {
        int status = 0;
        switch (reader.Next(request, status)) {
        case Parse::kNeedMore: {
            const size_t count = peer.Receive(reader.Space(), reader.SpaceSize());
            if (count == 0) {
                return;
            }
            reader.Received(count);
            break;
        }
        case Parse::kError: {
            head.clear();
            const std::string body = std::to_string(status) + ' ' + Reason(status) + '\n';
            AppendHead(head, status, 1, false, "text/plain; charset=utf-8", body.size());
            head += body;
            peer.Write(head.data(), head.size());
            if (peer.Flush()) {
                peer.Drain(); // closing with unread bytes would reset the answer away
            }
            return;
        }
        case Parse::kRequest:
            if (!Respond(files, request, peer, head)) {
                if (request.hasBody || request.refusal == 400) {
                    peer.Drain();
                }
                return;
            }
            break;
        }
    }
}

} // namespace examples::http
