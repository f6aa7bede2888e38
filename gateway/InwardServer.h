// The gateway's side towards the plug-in: plain HTTP on loopback, as the plug-in speaks it.
//
//   GET /services/rest/?method=…&api_key=…&auth_token=…&api_sig=…     a call, signed with the run's secret
//   GET http://127.0.0.1:PORT/media/RANDOM/ITEM/media                  a file, or …/thumbnail
//
// Everything else is refused. Key, secret and token are made for the run, and the random part of the media
// addresses too: nobody else on the machine can make a call, even if they find the port.

#ifndef GATEWAY_INWARDSERVER_H
#define GATEWAY_INWARDSERVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gateway/Catalog.h"
#include "gateway/MediaTransfers.h"

namespace flickr_gateway {

/// What the plug-in needs, in place of the account's own.
struct InwardKeys {
    std::string apiKey;
    std::string apiSecret;
    std::string token;
    std::string media;  ///< the random part of media addresses

    static InwardKeys random();
};

/// Serves on threads of its own: the plug-in waits until all threads of the library's default pool are idle.
class InwardServer {
public:
    /// Listens on 127.0.0.1; port 0: the system picks. Answers once serve() was called. sign: how often a
    /// request that has to wait gets an interim answer; the plug-in gives up after 60 s of silence.
    InwardServer(std::uint16_t port, std::chrono::milliseconds sign);
    /// Ends all connections.
    ~InwardServer();
    InwardServer(const InwardServer&) = delete;
    InwardServer& operator=(const InwardServer&) = delete;

    /// "http://127.0.0.1:PORT"
    std::string address() const;
    /// In front of an item's id.
    std::string mediaAddress() const { return address() + mediaPath(); }
    std::string dataUrl() const;
    const InwardKeys& keys() const { return keys_; }

    /// report: called with the sentence of each call that fails.
    void serve(Catalog& catalog, MediaTransfers& transfers, std::function<void(const std::string&)> report);

private:
    class Handler;
    struct Server;

    std::string mediaPath() const { return "/media/" + keys_.media + "/"; }

    const InwardKeys keys_;
    std::unique_ptr<Server> server_;
};

}  // namespace flickr_gateway

#endif
