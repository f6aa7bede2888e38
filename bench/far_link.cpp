// A long line between two network namespaces, over which real TCP runs: each namespace has a TUN device, and
// this program carries the packets from one to the other, holds them back for half a round trip, and sends no
// more of them in a second than the line carries. It is for kernels that cannot delay packets themselves.
//
//   near  127.77.0.1          far  127.77.0.2
//      far0 ── TUN ── this program ── TUN ── far0
//
// Servers that listen on loopback only are to be reached, so the addresses are of 127.0.0.0/8, of which both
// namespaces leave all but the first quarter to the line. Their own 127.0.0.1 stays what it is.
//
// Packets that the line cannot take wait in front of it for up to 100 ms, and further ones are lost, as with
// a common router. Nothing else is lost, and nothing overtakes.

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr std::size_t kPacket = 1500;
constexpr nanoseconds kLongestQueue = std::chrono::milliseconds(100);

[[noreturn]] void fail(const std::string& step) {
    throw std::runtime_error(step + ": " + std::strerror(errno));
}

/// Whether the kernel has taken it.
bool set(const std::string& setting, const char* value) {
    std::ofstream file("/proc/sys/net/ipv4/" + setting);
    return bool(file << value << std::flush);
}

/// One end of the line.
struct End {
    int space = -1;   // the namespace
    int device = -1;  // what is written here is received there

    /// Leaves the process in the new namespace.
    End(const std::string& own, const std::string& other) {
        if (::unshare(CLONE_NEWNET) != 0) fail("no network namespace");
        space = ::open("/proc/self/ns/net", O_RDONLY);
        device = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK);
        ifreq request{};
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        std::strcpy(request.ifr_name, "far0");
        if (device < 0 || ::ioctl(device, TUNSETIFF, &request) != 0) fail("no TUN device");
        const std::string commands =
            "ip link set lo up && ip link set far0 up && ip route del local 127.0.0.0/8 dev lo table local "
            "&& "
            "ip route add local 127.0.0.0/10 dev lo table local && "
            "ip address add " +
            own + " peer " + other + " dev far0";
        if (std::system(commands.c_str()) != 0) throw std::runtime_error("the addresses cannot be set");
        if (!set("conf/all/route_localnet", "1")) fail("conf/all/route_localnet");
        // What an earlier connection has learned about the line would help a later contender.
        if (!set("tcp_no_metrics_save", "1")) fail("tcp_no_metrics_save");
        set("tcp_congestion_control", "cubic");  // most have it as their default
    }
};

struct Line {
    nanoseconds delay{0};
    double nanosecondsForByte = 0;
};

/// The packets on their way to one end.
class Way {
public:
    Way(int from, int to, const Line& line) : from_(from), to_(to), line_(line) {}

    void take() {
        for (ssize_t size; (size = ::read(from_, buffer_, sizeof buffer_)) > 0;) {
            const Clock::time_point start = std::max(Clock::now(), free_);
            if (start - Clock::now() > kLongestQueue) continue;
            free_ = start + nanoseconds(static_cast<long>(line_.nanosecondsForByte * double(size)));
            waiting_.push_back({free_ + line_.delay, std::string(buffer_, static_cast<std::size_t>(size))});
        }
    }

    void deliver() {
        for (; !waiting_.empty() && waiting_.front().due <= Clock::now(); waiting_.pop_front()) {
            const std::string& bytes = waiting_.front().bytes;
            if (::write(to_, bytes.data(), bytes.size()) < 0 && errno != EAGAIN) fail("a packet");
        }
    }

    Clock::time_point next() const {
        return waiting_.empty() ? Clock::time_point::max() : waiting_.front().due;
    }

private:
    struct Packet {
        Clock::time_point due;
        std::string bytes;
    };

    const int from_;
    const int to_;
    const Line& line_;
    Clock::time_point free_{};  // when the line has sent what it was given
    std::deque<Packet> waiting_;
    char buffer_[kPacket];
};

/// Reads what the line is to be like; false at the end of the input.
bool change(Line& line) {
    char text[64];
    const ssize_t size = ::read(STDIN_FILENO, text, sizeof text - 1);
    if (size <= 0) return false;
    text[size] = '\0';
    double roundTrip = 0, megabits = 0;
    if (std::sscanf(text, "%lf %lf", &roundTrip, &megabits) != 2) throw std::runtime_error("what line?");
    line.delay = nanoseconds(static_cast<long>(roundTrip * 1e6 / 2));
    line.nanosecondsForByte = megabits > 0 ? 8000 / megabits : 0;
    std::puts("changed");
    return true;
}

void carry(const End& near, const End& far) {
    Line line;
    Way there(near.device, far.device, line), back(far.device, near.device, line);
    pollfd sources[] = {{near.device, POLLIN, 0}, {far.device, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        const Clock::time_point next = std::min(there.next(), back.next());
        const nanoseconds time = next == Clock::time_point::max()
                                     ? std::chrono::seconds(1)
                                     : std::max<nanoseconds>(next - Clock::now(), nanoseconds(0));
        const timespec wait{time.count() / 1000000000, time.count() % 1000000000};
        ::ppoll(sources, 3, &wait, nullptr);
        if (sources[2].revents != 0 && !change(line)) return;
        there.take();
        back.take();
        there.deliver();
        back.deliver();
    }
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        // The packets are not to wait for the processor as well, also behind what is measured in real time.
        const sched_param first{2};
        ::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &first);
        ::prctl(PR_SET_TIMERSLACK, 1);
        const End near("127.77.0.1", "127.77.0.2"), far("127.77.0.2", "127.77.0.1");
        for (const End* end : {&near, &far}) std::printf("/proc/%d/fd/%d\n", ::getpid(), end->space);
        carry(near, far);
        return 0;
    } catch (std::exception& exception) {
        std::fprintf(
            stderr,
            "far_link: %s.\n"
            "Prints the two namespaces, and reads lines with the round trip in milliseconds and the line's "
            "Mbit/s (0: any) until the input ends.\n",
            exception.what());
        return 1;
    }
}
