// Ends waits for the network when a stop is requested.
//
// A run looks at the stop flag between any two blocks, but a peer that falls silent, or that sends a header
// byte by byte, keeps it waiting inside the network library for a minute or without end. So while a run lasts
// a thread looks at the flag too, and shuts its connections down: what waits on one then sees its end.
//
// The end of a connection can also be the end of a body. Whoever takes it for that has to look at the stop
// flag first, which is set before a connection is shut down.

#ifndef CORE_STOPWATCHER_H
#define CORE_STOPWATCHER_H

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace Norvale_Plugin_Flickr {

/// Watches for the user's stop request for as long as it lives, and shuts down every connection that was made
/// over a stoppableSocket() within a quarter of a second of it. Looking up a host's name is not covered.
/// Where the system has no thread to give, it watches nothing: a stop then waits for the network.
class StopWatcher {
public:
    StopWatcher();
    ~StopWatcher();
    StopWatcher(const StopWatcher&) = delete;
    StopWatcher& operator=(const StopWatcher&) = delete;

private:
    void watch();

    std::mutex mutex_;
    std::condition_variable condition_;
    bool ended_ = false;
    std::thread thread_;  // last: it uses the others
};

/// Thrown for a connection that a stop request ended.
class StoppedException : public Poco::Exception {
public:
    StoppedException() : Poco::Exception("ended by a stop request") {}
};

/// How many times connections of this process were shut down by a stop request so far.
std::uint64_t connectionsEndedByStop();

/// A socket, not connected yet, that a StopWatcher shuts down.
Poco::Net::StreamSocket stoppableSocket();

/// A session of the network library for plain HTTP over such a socket.
class StoppableSession : public Poco::Net::HTTPClientSession {
public:
    using HTTPClientSession::HTTPClientSession;

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        attachSocket(stoppableSocket());
        HTTPClientSession::connect(address);
    }
};

}  // namespace Norvale_Plugin_Flickr

#endif
