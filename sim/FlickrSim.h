// The simulated service: REST interface and content server on one loopback address.
//
//   Account account;
//   const std::string trip = account.addSet("Trip");
//   const std::string id = account.addItem(trip, photo("sunset"));
//   FlickrSim sim(account);
//   sim.faults().add(media(id), nth(1), fault::status(503));
//   ... a client uses sim.dataUrl() ...
//   EXPECT_EQ(sim.counts().media, 2u);

#ifndef SIM_FLICKRSIM_H
#define SIM_FLICKRSIM_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sim/Account.h"
#include "sim/Credentials.h"
#include "sim/Faults.h"
#include "sim/Message.h"
#include "sim/RequestLog.h"
#include "sim/TodayApi.h"

namespace flickr_sim {

class Listener;

/// Of addresses.
enum class Scheme { Http, Https };

/// How media files are handed out; can be changed at any time.
struct MediaDelivery {
    bool https = false;        ///< addresses in answers are https (needs a TLS listener)
    unsigned redirects = 0;    ///< redirects before the file is sent
    int redirectStatus = 302;  ///< 301, 302, 303 or 307
    bool relativeLocations = false;
    bool redirectToHttps = false;  ///< a further redirect, to https, as the last
    Framing framing = Framing::ContentLength;
};

struct SimOptions {
    std::string address = "127.0.0.1";  ///< of 127.0.0.0/8
    std::uint16_t port = 0;             ///< 0: the system picks
    /// TLS with a certificate made at start; 0: the system picks, none: no TLS. Clients that ignore the port
    /// of https addresses need 443.
    std::optional<std::uint16_t> httpsPort;
    std::vector<std::string> tlsNames;  ///< further names of the certificate, as for relays
    Credentials credentials;
    /// The service as it is today, over HTTPS: TodayApi.h. The plain port takes orders only.
    std::optional<TodayOptions> today;
    MediaDelivery delivery;
    /// flickr.photos.getNotInSet answers pages past the end with the last one again.
    bool repeatLastPage = false;
    bool keepLog = true;  ///< record every request; off for long runs
};

/// A server that runs from construction to destruction, a thread for each connection. All operations can be
/// called from any thread.
class FlickrSim {
public:
    /// Starts to serve the account, which must outlive the server. Throws Poco::Exception with a sentence
    /// that says which address it cannot listen on and why.
    explicit FlickrSim(Account& account, SimOptions options = {});
    /// Closes every connection, at once.
    ~FlickrSim();
    FlickrSim(const FlickrSim&) = delete;
    FlickrSim& operator=(const FlickrSim&) = delete;

    /// A loopback address that differs from process to process, so that several can have its port 443.
    static std::string ownLoopbackAddress();

    /// "http://127.0.0.1:PORT/services/rest/"
    std::string dataUrl() const;
    /// "http://127.0.0.1:PORT", or the https one; without a slash at the end.
    std::string baseUrl(Scheme scheme = Scheme::Http) const;
    std::uint16_t port() const { return port_; }
    /// 0 without TLS.
    std::uint16_t httpsPort() const { return httpsPort_; }
    /// The random word that orders have to bring; see Control.h.
    const std::string& orderWord() const { return orderWord_; }
    /// The certificate that clients have to trust, in PEM. Without TLS empty.
    const std::string& authorityPem() const { return authorityPem_; }
    bool isToday() const { return today_ != nullptr; }
    /// "https://127.0.0.1:PORT": below it are /services/rest/ and /services/oauth/ of today's service.
    std::string serviceUrl() const { return baseUrl(Scheme::Https); }
    /// Today's side; only with SimOptions::today.
    TodayApi& today() { return *today_; }
    const Credentials& credentials() const { return options_.credentials; }
    /// The address of one rendition, as answers give it.
    std::string mediaUrl(const std::string& itemId, const std::string& label = "Original") const;

    Account& account() { return account_; }
    Faults& faults() { return faults_; }
    void setDelivery(const MediaDelivery& delivery);
    void setRepeatLastPage(bool repeat) { repeatLastPage_ = repeat; }

    /// Calls the function on the thread of the connection for each request (orders to the simulator left out)
    /// before the account is asked: what it changes there shows in the answer. Replaces the former one.
    void onRequest(RequestLog::Hook hook) { log_.onRequest(std::move(hook)); }

    Counts counts() const { return log_.counts(); }
    /// The requests so far in the order of their arrival, when the log is kept.
    std::vector<Request> log() const { return log_.requests(); }
    /// Empties log and counts.
    void clearLog() { log_.clear(); }

private:
    void serve(Wire& wire, Request& request, bool firstOfConnection, bool& keepAlive);
    void classify(Request& request) const;
    Reply answer(const Request& request);
    Reply restReply(const Request& request);
    std::string addressFor(const Request& request, Scheme scheme) const;
    Reply mediaReply(const Request& request);
    static void transmit(Wire& wire, const Request& request, const Reply& reply, bool& keepAlive);
    MediaDelivery delivery() const;
    Scheme mediaScheme() const;

    Account& account_;
    const SimOptions options_;
    const std::string orderWord_;
    RequestLog log_;
    Faults faults_;
    std::atomic<bool> repeatLastPage_;
    const std::unique_ptr<TodayApi> today_;
    mutable std::mutex mutex_;  // guards what follows
    MediaDelivery delivery_;
    std::uint16_t port_ = 0;
    std::uint16_t httpsPort_ = 0;
    std::string authorityPem_;
    std::unique_ptr<Listener> http_;
    std::unique_ptr<Listener> https_;
};

}  // namespace flickr_sim

#endif
