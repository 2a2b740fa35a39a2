// A program that uses only orvun::net and makes no profiler call, so the
// linker may keep libOrvunNet alone in it: libOrvunNet has to find its two
// siblings by itself. One TCP exchange on loopback; exits 0 when it worked.
// scripts/ci-install.sh builds it with the README's recipes.
#include "net/Socket.h"

#include <iostream>
#include <memory>
#include <string>

int main()
{
    try {
        orvun::net::TcpListener listener("127.0.0.1", 0, [](std::unique_ptr<orvun::net::TcpSocket> connection) {
            unsigned char request[5] = {};
            connection->Read(request, sizeof(request));
            for (unsigned char& byte : request) {
                byte = static_cast<unsigned char>(byte ^ 0x20); // swap the case: an answer, not an echo
            }
            connection->Write(request, sizeof(request));
            connection->Flush();
        });
        orvun::net::TcpSocket client("127.0.0.1", listener.GetLocalPort(), 0, 2000);
        const std::string hello = "hello";
        client.Write(reinterpret_cast<const unsigned char*>(hello.data()), hello.size());
        client.Flush();
        unsigned char answer[5] = {};
        client.Read(answer, sizeof(answer));
        const std::string text(answer, answer + sizeof(answer));
        if (text != "HELLO") {
            std::cerr << "app: the server answered '" << text << "'\n";
            return 1;
        }
        std::cout << "app: sent 'hello' to 127.0.0.1:" << listener.GetLocalPort() << ", got 'HELLO'\n";
        return 0;
    } catch (const orvun::net::SocketError& error) {
        std::cerr << "app: " << error.what() << '\n';
        return 1;
    }
}
