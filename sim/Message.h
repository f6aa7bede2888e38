// What a client asked and what it is answered.

#ifndef SIM_MESSAGE_H
#define SIM_MESSAGE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sim/Content.h"

namespace flickr_sim {

enum class Kind {
    Rest,       ///< a call to /services/rest/
    OAuth,      ///< the sign-in of today's service, under /services/oauth/
    Media,      ///< a media file: any rendition but the thumbnail
    Thumbnail,  ///< the rendition "Thumbnail"
    Control,    ///< an order to the simulator itself, under /sim/
    Other       ///< anything else
};

using Headers = std::vector<std::pair<std::string, std::string>>;

/// A request as it was received.
struct Request {
    std::uint64_t number = 0;  ///< 1 for the first that the simulator received
    std::string line;          ///< the request line without its end, exactly
    Headers headers;           ///< in the order received, names and values exactly
    std::string verb;          ///< "GET"
    std::string target;        ///< as in the line
    std::string path;  ///< as in the target, encoded; without scheme and host when the target is a whole URL
    std::string body;  ///< when it is a form, exactly; otherwise empty
    std::map<std::string, std::string> parameters;  ///< of the query and the form, decoded
    Kind kind = Kind::Other;
    std::string method;  ///< of REST calls: "flickr.photosets.getList"
    std::string itemId;  ///< of media and thumbnails, and photo_id of REST calls
    std::string label;   ///< of media and thumbnails: "Original"
    bool https = false;
    int status = 0;  ///< answered; 0: not yet, or none (dropped, raw)

    /// The value of a header, whatever its case; empty when it is missing.
    std::string header(const std::string& name) const;
    /// The value of a parameter; empty when it is missing.
    std::string parameter(const std::string& name) const;
    /// Whether the body is announced as the fields of a form (application/x-www-form-urlencoded).
    bool hasForm() const;
};

/// Reads a request line and its headers, all without the empty line at the end; sets the fields down to
/// parameters. False when it is no HTTP/1 request.
bool parseRequest(const std::string& text, Request& request);

/// Adds names and values joined by '=' and '&' to the request's parameters.
void addParameters(const std::string& form, Request& request);

/// The name of an HTTP status: "Not Found".
std::string reasonOf(int status);

/// A connection as the writer of raw answers sees it.
class Wire {
public:
    virtual ~Wire() = default;
    /// Sends all bytes; false once the client is gone or the simulator stops.
    virtual bool send(const char* data, std::size_t length) = 0;
    bool write(const std::string& text) { return send(text.data(), text.size()); }
    /// Sends what has been gathered.
    virtual bool flush() = 0;
    /// Waits; false at once when the simulator stops.
    virtual bool wait(std::chrono::milliseconds time) = 0;
    /// Makes the end of the connection a reset (RST) instead of an orderly close.
    virtual void resetOnClose() = 0;
};

/// How the end of a body is told.
enum class Framing { ContentLength, Chunked, Close };

/// An answer, before it is sent: what faults change.
struct Reply {
    int status = 200;  ///< 0: nothing is sent, the connection is closed
    Headers headers;   ///< without those that frame the body
    Content body;
    Content whole;  ///< of an answer that gives a part: all of which it is one
    Framing framing = Framing::ContentLength;
    /// Content-Length headers instead of the true one; an empty list: none.
    std::optional<std::vector<std::string>> announcedLengths;
    std::uint64_t headerLimit = UINT64_MAX;   ///< bytes of the header sent before the connection is closed
    std::uint64_t bodyLimit = UINT64_MAX;     ///< bytes of the body sent before the connection is closed
    bool reset = false;                       ///< close with a reset
    std::size_t blockSize = 0;                ///< 0: as fast as possible; otherwise blocks of that many bytes
    std::chrono::milliseconds blockDelay{0};  ///< wait before the header and between blocks
    /// When set, writes all that is sent instead; the connection is closed afterwards.
    std::function<void(const Request&, Wire&)> raw;
};

/// An answer of plain text.
Reply plainReply(int status, std::string text);

}  // namespace flickr_sim

#endif
