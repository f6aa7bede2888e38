// A listening socket on loopback and the threads that serve its connections.
//
// The library's HTTP server is not used: faults cut, slow and reset a connection at any byte, and what a
// client sent is recorded exactly.

#ifndef SIM_LISTENER_H
#define SIM_LISTENER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sim/Message.h"
#include "sim/TlsContext.h"

namespace flickr_sim {

/// Accepts connections and reads requests from them until it is destroyed.
///
/// All threads wait in accept(), so that a connection is served by the thread that got it; there is always
/// one thread more than connections, up to a bound far beyond what tests need.
class Listener {
public:
    /// Answers one request over the wire. keepAlive comes in as what the client wants and goes out as whether
    /// the connection stays open. The request number 1 of a connection has firstOfConnection set.
    using Handler =
        std::function<void(Wire& wire, Request& request, bool firstOfConnection, bool& keepAlive)>;

    /// port 0: the system picks; tls null: plain. Throws Poco::Exception with a sentence that says what
    /// cannot be had.
    Listener(const std::string& address, std::uint16_t port, std::unique_ptr<TlsContext> tls,
             Handler handler);
    /// Ends all connections and waits for their threads.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t port() const { return port_; }

private:
    class Connection;

    void addThread();
    void acceptConnections();
    void serve(Connection& connection);
    bool waitUnlessStopping(std::chrono::milliseconds time);

    const Handler handler_;
    const std::unique_ptr<TlsContext> tls_;
    int socket_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> idle_{0};
    std::mutex mutex_;  // guards what follows
    std::condition_variable stop_;
    std::vector<std::thread> threads_;
    std::set<int> connected_;  // sockets of open connections
};

}  // namespace flickr_sim

#endif
