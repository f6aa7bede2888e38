// Ways to misbehave, and on which requests.
//
// A fault is an action on the answers of the requests that it matches, at a rate or for some of them counted
// from 1. Faults apply in the order in which they were added; each changes what the one before it left. As
// text, for the program:
//
//   kind=media,rate=0.1,status=503         one media request in ten, chosen by a fixed seed
//   method=flickr.photos.getSizes,nth=3,drop=header
//   item=53000000007,count=2,cut=1000      its first two downloads end after 1,000 bytes
//
// Which: kind=rest|media|thumbnail|oauth, method=NAME, item=ID, path=PART of the request target.
// When: nth=N (that one only), from=N, count=N, every=N, rate=0..1, for=SECONDS (from now on). Without these,
// always.
// What: status=CODE, error=CODE (the service's own error answer), drop=before|header|body, cut=BYTES (the
// rest of the announced body is missing), short=BYTES (so many fewer bytes than announced), slow=BYTES/MS,
// length=TEXT (the content length announced), framing=chunked|close, redirect=URL or redirect=self,
// malformed=1 (XML that ends in the middle), headers=BYTES (so many of them), retry-after=SECONDS
// (announced), ignore-range=1 (the whole file, whatever part was asked for), weak-tag=1 (a tag that is good
// for no part of a file).

#ifndef SIM_FAULTS_H
#define SIM_FAULTS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "sim/Message.h"

namespace flickr_sim {

/// Which requests; what is left empty matches all but orders to the simulator.
struct Match {
    std::optional<Kind> kind;
    std::string method;  ///< REST method, whole name
    std::string itemId;
    std::string targetPart;                     ///< text that the request target holds
    std::function<bool(const Request&)> where;  ///< any further condition

    bool operator()(const Request& request) const;
};

Match rest(std::string method = "", std::string itemId = "");
Match media(std::string itemId = "");
Match thumbnail(std::string itemId = "");

/// When, among the requests that match.
struct Schedule {
    std::uint64_t first = 1;           ///< the first matching request that is hit, counted from 1
    std::uint64_t count = UINT64_MAX;  ///< how many are hit, at most
    std::uint64_t every = 1;           ///< only every so many-th from first on
    double rate = 1.0;                 ///< chance of those, 0 to 1, from a fixed seed
    std::chrono::steady_clock::time_point end = std::chrono::steady_clock::time_point::max();
};

Schedule always();
Schedule nth(std::uint64_t n);
Schedule firstTimes(std::uint64_t count);
Schedule from(std::uint64_t n);

/// What is done to the answer.
using Action = std::function<void(const Request&, Reply&)>;

namespace fault {

/// An HTTP status with a short HTML body, as a proxy or the content servers would send it.
Action status(int code);
/// The service's own error answer: stat="fail" with the code and message, HTTP status 200.
Action serviceError(int code, std::string message);
/// How a connection is closed: orderly, or with a reset.
enum class Close { Orderly, Reset };

/// Closes the connection without an answer, after some bytes of the header, or after some bytes of the body.
Action dropBeforeHeader(Close close = Close::Orderly);
Action dropInHeader(std::uint64_t bytes = 20, Close close = Close::Orderly);
/// The announced length stays the true one; a chunked body ends behind a whole chunk, without the last one.
Action dropInBody(std::uint64_t bytes, Close close = Close::Orderly);
/// Announces the true length and sends so many bytes fewer, then closes.
Action shortBody(std::uint64_t missing);
/// The first bytes of the body as if they were all of it: length and end are consistent.
Action truncated(std::uint64_t bytes);
/// Blocks of so many bytes with a wait before each.
Action slow(std::size_t bytes, std::chrono::milliseconds wait);
/// Another body, of status 200, in place of the answer's: malformed or wrong XML, for example.
Action body(std::string bytes);
/// Cuts the body in the middle and announces that length: XML that is not well-formed.
Action malformed();
/// Changes the body's text, which is read whole: for wrong attributes and the like in true answers.
Action edited(std::function<std::string(std::string)> change);
Action framing(Framing framing);
/// Content-Length headers with these texts, whatever the body holds; none for an empty list.
Action contentLength(std::vector<std::string> values);
/// A redirect to a location, sent as it is; to the request's own address; or to a new address each time, for
/// ever.
Action redirect(std::string location, int status = 302);
Action redirectToSelf(int status = 302);
Action redirectForever(int status = 302);
/// A Retry-After header.
Action retryAfter(std::uint64_t seconds);
/// All of a file in place of the part that was asked for.
Action ignoreRange();
/// The file's tag as a weak one: it says that the file means the same, and not that its bytes are.
Action weakTag();
/// Header lines of so many bytes in all before the rest.
Action hugeHeader(std::uint64_t bytes);
/// These bytes instead of a whole answer, then the connection is closed.
Action raw(std::string bytes);
/// Whatever the function writes, then the connection is closed.
Action raw(std::function<void(const Request&, Wire&)> writer);

}  // namespace fault

struct Fault {
    Match match;
    Schedule schedule;
    Action action;
};

/// Reads the text form. Throws Poco::SyntaxException with one sentence that says what is wrong.
Fault parseFault(const std::string& text);

/// The faults in force; for any number of threads.
class Faults {
public:
    /// Returns a number for hits().
    std::size_t add(Match match, Schedule schedule, Action action);
    std::size_t add(Fault fault);
    /// How often a fault has struck.
    std::uint64_t hits(std::size_t number) const;
    void clear();
    /// Changes the answer to a request by all that strike.
    void apply(const Request& request, Reply& reply);

private:
    struct Active {
        Fault fault;
        std::uint64_t seen = 0;
        std::uint64_t hits = 0;
    };

    std::atomic<bool> any_{false};
    mutable std::mutex mutex_;
    std::vector<Active> faults_;
    std::mt19937_64 random_{1};
};

}  // namespace flickr_sim

#endif
