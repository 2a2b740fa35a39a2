// Address texts through resolution and back out through GetRemoteAddress.
//
// Input: two bytes of port, one byte choosing how the rest becomes host text,
// then the text. Text with a colon is an IPv6 literal and never looked up, so
// it may hold anything. Text without one goes to the system's name lookup,
// which must never reach a name server: only "localhost" (the hosts file)
// and dotted-decimal text that starts and ends with a digit (refused or
// accepted locally) are passed that way; anything else gets a colon first.
// No descriptor is created and nothing is sent.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "net/Socket.h"

namespace {

using orvun::net::ResolveError;
using orvun::net::Socket;

[[noreturn]] void Fail(const char* what, const std::string& host)
{
    std::fprintf(stderr, "fuzz_address: %s for host of %zu bytes\n", what, host.size());
    std::abort();
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool HasColon(const std::string& text) { return text.find(':') != std::string::npos; }

// Text that the lookup settles without asking a name server.
bool LocallyResolved(const std::string& text)
{
    if (text == "localhost") {
        return true;
    }
    if (text.empty() || !IsDigit(text.front()) || !IsDigit(text.back())) {
        return false;
    }
    for (char c : text) {
        if (!IsDigit(c) && c != '.') {
            return false;
        }
    }
    return true;
}

std::string Host(std::uint8_t mode, const std::string& text, unsigned short port)
{
    switch (mode % 6) {
    case 0: // as given
        return text;
    case 1: // bracketed with a port, as in a URL
        return "[" + text + "]:" + std::to_string(port);
    case 2: { // dotted decimal
        std::string dotted;
        for (char c : text) {
            dotted += "0123456789."[static_cast<unsigned char>(c) % 11];
        }
        if (dotted.empty() || dotted.front() == '.') {
            dotted.insert(0, "0");
        }
        if (dotted.back() == '.') {
            dotted += '0';
        }
        return dotted;
    }
    case 3: // IPv4 text after an IPv6 prefix
        return "::ffff:" + text;
    case 4: { // very long
        std::string longText;
        while (!text.empty() && longText.size() < 4096) {
            longText += text;
        }
        return longText + ":";
    }
    default:
        return "localhost";
    }
}

std::string Expected6(const std::string& host)
{
    in6_addr address{};
    if (inet_pton(AF_INET6, host.c_str(), &address) != 1) {
        address = in6addr_any;
    }
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &address, text, sizeof(text));
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    const auto port = static_cast<unsigned short>(data[0] | data[1] << 8);
    std::string host = Host(data[2], std::string(reinterpret_cast<const char*>(data + 3), size - 3), port);
    if (!HasColon(host) && !LocallyResolved(host)) {
        host += ':';
    }
    if (!HasColon(host) && !LocallyResolved(host)) {
        Fail("text for a name server", host); // a fault of this harness
    }

    Socket socket;
    if (socket.GetRemoteAddress() != "" || socket.GetRemotePort() != 0 || socket.GetLocalPort() != 0) {
        Fail("a fresh socket reports an address", host);
    }
    socket.ResolveAddress("::1", 1);
    if (socket.GetRemoteAddress() != "::1" || socket.GetRemotePort() != 1) {
        Fail("::1 did not resolve to itself", host);
    }

    if (HasColon(host)) {
        socket.ResolveAddress(host, port); // never throws: bad text is the unspecified address
        if (socket.GetRemoteAddress() != Expected6(host)) {
            Fail("IPv6 text came back changed", host);
        }
        if (socket.GetRemotePort() != port) {
            Fail("IPv6 port came back changed", host);
        }
        return 0;
    }

    in_addr expected{};
    const bool valid = host == "localhost" || inet_aton(host.c_str(), &expected) != 0;
    try {
        socket.ResolveAddress(host, port);
    } catch (const ResolveError& error) {
        if (valid) {
            Fail("valid text was refused", host);
        }
        if (error.what() != "Could not resolve host '" + host + "'") {
            Fail("wrong ResolveError message", host);
        }
        if (socket.GetRemoteAddress() != "::1" || socket.GetRemotePort() != 1) {
            Fail("a failed resolution changed the record", host);
        }
        return 0;
    }
    if (!valid) {
        Fail("invalid text was accepted", host);
    }
    const std::string text = socket.GetRemoteAddress();
    if (host == "localhost" ? text.rfind("127.", 0) != 0 : text != inet_ntoa(expected)) {
        Fail("IPv4 text came back changed", host);
    }
    if (socket.GetRemotePort() != port) {
        Fail("IPv4 port came back changed", host);
    }
    return 0;
}
