#include "standin/app/SignInPage.h"

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include <map>

#include "gateway/OAuth.h"

namespace flickr_app {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLargestRequest = 16 << 10;
const Poco::Timespan kPatience(5, 0);  // with one connection

/// Nothing in it comes from the request, and it loads nothing.
std::string page(bool signedIn) {
    const std::string title = signedIn ? "You are signed in" : "You are not signed in";
    const std::string text = signedIn
                                 ? "flickr-backup may read your photos and videos now, and change nothing. "
                                   "Go back to the terminal; this page can be closed."
                                 : "flickr-backup was not allowed to read the account. Run "
                                   "<code>flickr-backup login</code> to try again.";
    return "<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + title +
           "</title><meta name=\"viewport\" content=\"width=device-width\"><style>"
           ":root{color-scheme:light dark}body{font:1.1rem/1.5 system-ui,sans-serif;display:grid;"
           "min-height:90vh;place-items:center;margin:0 1rem}main{max-width:32rem;padding:2rem;border:1px "
           "solid "
           "#8884;border-radius:1rem;text-align:center}p.mark{font-size:3rem;margin:0}</style></"
           "head><body><main "
           "id=\"" +
           std::string(signedIn ? "signed-in" : "refused") + "\"><p class=\"mark\" aria-hidden=\"true\">" +
           (signedIn ? "&#10003;" : "&#10007;") + "</p><h1>" + title + "</h1><p>" + text +
           "</p></main></body></html>\n";
}

void send(Poco::Net::StreamSocket& socket, const std::string& status, const std::string& body) {
    const std::string answer =
        "HTTP/1.1 " + status +
        "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nContent-Security-Policy: default-src 'none'; style-src 'unsafe-inline'\r\n"
        "Referrer-Policy: no-referrer\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" +
        body;
    socket.sendBytes(answer.data(), static_cast<int>(answer.size()));
    socket.shutdownSend();
}

/// The target of a GET; empty for anything else.
std::string targetFrom(Poco::Net::StreamSocket& socket) {
    std::string text;
    char block[2048];
    while (text.find("\r\n\r\n") == std::string::npos && text.size() < kLargestRequest) {
        const int got = socket.receiveBytes(block, sizeof block);
        if (got <= 0) return std::string();
        text.append(block, static_cast<std::size_t>(got));
    }
    const std::size_t end = text.find(' ', 4);
    if (text.compare(0, 4, "GET ") != 0 || end == std::string::npos) return std::string();
    return text.substr(4, end - 4);
}

}  // namespace

SignInPage::SignInPage()
    : socket_(Poco::Net::SocketAddress("127.0.0.1", 0)), path_("/" + flickr_gateway::randomHex(16)) {}

std::string SignInPage::address() const {
    return "http://" + socket_.address().toString() + path_;
}

std::string SignInPage::await(const std::string& requestToken, std::chrono::seconds time) {
    for (const Clock::time_point end = Clock::now() + time; Clock::now() < end;) {
        if (!socket_.poll(Poco::Timespan(1, 0), Poco::Net::Socket::SELECT_READ)) continue;
        std::string verifier;
        try {
            Poco::Net::StreamSocket socket = socket_.acceptConnection();
            socket.setReceiveTimeout(kPatience);
            socket.setSendTimeout(kPatience);
            if (answer(socket, requestToken, verifier)) return verifier;
        } catch (Poco::Exception&) {
            // A browser opens connections that it does not use.
        }
    }
    throw Poco::TimeoutException(
        "Nobody has answered on the service's page; run \"flickr-backup login\" again.");
}

bool SignInPage::answer(Poco::Net::StreamSocket& socket, const std::string& requestToken,
                        std::string& verifier) const {
    const std::string target = targetFrom(socket);
    std::map<std::string, std::string> query;
    if (!target.empty()) {
        const Poco::URI uri(target);
        for (auto& [name, value] : uri.getQueryParameters()) query[name] = value;
        if (uri.getPath() != path_) query.clear();
    }
    const bool refused = !query["oauth_problem"].empty();
    if (!refused && (query["oauth_token"] != requestToken || query["oauth_verifier"].empty())) {
        send(socket, "404 Not Found", "");
        return false;
    }
    verifier = refused ? std::string() : query["oauth_verifier"];
    send(socket, "200 OK", page(!refused));
    return true;
}

}  // namespace flickr_app
