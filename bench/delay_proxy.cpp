// Distance to a server that is near: passes connections on, and makes each answer come as late as it would
// over a long line without loss and of any bandwidth.
//
//   - A connection costs a round trip before its first byte can leave, and the request half a round trip.
//   - The answer's first byte takes half a round trip. A TCP sender starts with ten segments of 1,460 bytes
//   and
//     may double that with every round trip: byte n comes floor(log2(1 + n / 14,600)) round trips later.
//
// The wait for the connection is made behind the client's connect(), which on loopback returns at once. One
// request for each connection, as the plug-in makes them; plain HTTP.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kFirstWindow = 10 * 1460;
constexpr std::size_t kBlock = 65536;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

bool sendAll(int peer, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = send(peer, data, size, MSG_NOSIGNAL);
        if (count <= 0) return false;
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Hands on what the server sends, a window after the other.
void passAnswer(int server, int client, Clock::duration roundTrip) {
    char block[kBlock];
    std::size_t window = kFirstWindow;
    std::size_t left = window;
    Clock::time_point release{};
    for (ssize_t count; (count = recv(server, block, std::min(left, sizeof block), 0)) > 0;) {
        if (release == Clock::time_point{}) release = Clock::now() + roundTrip / 2;
        std::this_thread::sleep_until(release);
        if (!sendAll(client, block, static_cast<std::size_t>(count))) return;
        left -= static_cast<std::size_t>(count);
        if (left == 0) {
            release += roundTrip;
            left = window *= 2;
        }
    }
}

void passConnection(int client, int serverPort, Clock::duration roundTrip) {
    const Clock::time_point opened = Clock::now();
    char request[kBlock];
    const ssize_t size = recv(client, request, sizeof request, 0);
    std::this_thread::sleep_until(opened + roundTrip + roundTrip / 2);

    const int server = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(serverPort);
    if (size > 0 && connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        sendAll(server, request, static_cast<std::size_t>(size))) {
        passAnswer(server, client, roundTrip);
    }
    close(server);
    close(client);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs(
            "usage: delay_proxy SERVER_PORT ROUND_TRIP_MS\n"
            "Listens on a loopback port, which it prints, until it is ended.\n",
            stderr);
        return 2;
    }
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::perror("delay_proxy");
        return 1;
    }
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    const int serverPort = std::atoi(argv[1]);
    const auto roundTrip = std::chrono::milliseconds(std::atoi(argv[2]));
    for (int client; (client = accept(listener, nullptr, nullptr)) >= 0;) {
        std::thread(passConnection, client, serverPort, roundTrip).detach();
    }
    return 1;
}
