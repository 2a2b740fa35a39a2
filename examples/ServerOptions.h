// Command-line pieces the example programs share: a port and a host,
// checked so that bad input gets a clear message (and exit status 2).
#pragma once

#include <arpa/inet.h>
#include <getopt.h>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace examples {

// Bad arguments: the caller prints the message and exits with status 2.
struct UsageError {
    std::string message;
};

// The error for the option getopt_long just refused (`optopt`, or the
// unknown long option's text).
inline UsageError UnknownOption(char** argv)
{
    return UsageError{"unknown option '" +
                      (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) +
                      "'"};
}

// `what` opens the message, e.g. "-p wants a port number".
inline unsigned short ParsePort(const char* text, const char* what = "-p wants a port number")
{
    char* end = nullptr;
    errno = 0;
    const long port = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || port < 0 || port > 65535) {
        throw UsageError{std::string(what) + " from 0 to 65535, not '" + text + "'"};
    }
    return static_cast<unsigned short>(port);
}

// The library reads any text with a colon as IPv6 and turns text it cannot
// read into the unspecified address; check it here to give a clear message.
// "[::1]" is taken as "::1". `empty` is the message for empty text.
inline std::string ParseHost(std::string host, const char* empty = "-b wants a host, not ''")
{
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty()) {
        throw UsageError{empty};
    }
    in6_addr address{};
    if (host.find(':') != std::string::npos && inet_pton(AF_INET6, host.c_str(), &address) != 1) {
        throw UsageError{"'" + host + "' is not an IPv6 address"};
    }
    return host;
}

} // namespace examples
