#include "core/StopWatcher.h"

#include <Poco/Net/StreamSocketImpl.h>
#include <sys/socket.h>

#include <chrono>
#include <set>
#include <system_error>

#include "hostapi/HostServiceUsageParams.h"

namespace Norvale_Plugin_Flickr {

namespace {

constexpr std::chrono::milliseconds kLook{200};

/// The process's connections that can be shut down. A descriptor leaves before it is closed, so that none
/// that was given to something else meanwhile is ever touched.
class Connections {
public:
    static Connections& instance() {
        // Never destroyed: a socket may outlive the process's static objects.
        static Connections& connections = *new Connections;
        return connections;
    }

    void add(int descriptor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        descriptors_.insert(descriptor);
    }
    void remove(int descriptor) {
        const std::lock_guard<std::mutex> lock(mutex_);
        descriptors_.erase(descriptor);
    }
    void shutDown() {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const int descriptor : descriptors_) ended_ += ::shutdown(descriptor, SHUT_RDWR) == 0;
    }
    std::uint64_t ended() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ended_;
    }

private:
    std::mutex mutex_;
    std::set<int> descriptors_;
    std::uint64_t ended_ = 0;
};

class StoppableSocketImpl : public Poco::Net::StreamSocketImpl {
public:
    void close() override {
        Connections::instance().remove(sockfd());
        StreamSocketImpl::close();
    }

protected:
    ~StoppableSocketImpl() override { Connections::instance().remove(sockfd()); }

    void init(int family) override {
        StreamSocketImpl::init(family);
        Connections::instance().add(sockfd());
    }
};

}  // namespace

StopWatcher::StopWatcher() {
    try {
        thread_ = std::thread([this] { watch(); });
    } catch (std::system_error&) {
        // A backup that is slow to stop is better than none.
    }
}

StopWatcher::~StopWatcher() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
    }
    condition_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void StopWatcher::watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!condition_.wait_for(lock, kLook, [this] { return ended_; })) {
        // Again and again: a connection may be made just behind the flag's last check.
        if (Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isManuallyStopped()) {
            Connections::instance().shutDown();
        }
    }
}

std::uint64_t connectionsEndedByStop() {
    return Connections::instance().ended();
}

Poco::Net::StreamSocket stoppableSocket() {
    return Poco::Net::StreamSocket(new StoppableSocketImpl);
}

}  // namespace Norvale_Plugin_Flickr
