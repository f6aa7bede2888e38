#include "standin/app/ServiceCheck.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/MD5Engine.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/URI.h>

#include <chrono>
#include <string>

#include "gateway/ServiceClient.h"
#include "standin/app/Format.h"
#include "standin/app/GatewayRun.h"
#include "standin/app/Reason.h"
#include "standin/app/Refusal.h"

namespace flickr_app {
namespace {

constexpr long kPatienceSeconds = 30;

/// The list of sets by the former interface; see core/SignedRequest.h for the signature.
std::string requestTarget(const Configuration& access, const std::string& token) {
    const std::string method = "flickr.photosets.getList";
    Poco::MD5Engine md5;
    md5.update(access.apiSecret + "api_key" + access.apiKey + "auth_token" + token + "method" + method);
    return Poco::URI(access.dataUrl).getPath() + "?method=" + method + "&api_key=" + access.apiKey +
           "&auth_token=" + token + "&api_sig=" + Poco::DigestEngine::digestToHex(md5.digest());
}

Poco::AutoPtr<Poco::XML::Document> ask(const Configuration& access, const std::string& token) {
    const Poco::URI uri(access.dataUrl);
    Poco::Net::HTTPClientSession session(uri.getHost(), uri.getPort());
    session.setTimeout(Poco::Timespan(kPatienceSeconds, 0));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, requestTarget(access, token),
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
        throw Poco::RuntimeException("it answers with status " + std::to_string(response.getStatus()));
    }
    Poco::XML::InputSource source(body);
    return Poco::XML::DOMParser().parse(&source);
}

long countSets(const Configuration& access, const std::string& token) {
    const auto document = ask(access, token);
    const Poco::AutoPtr<Poco::XML::NodeList> errors = document->getElementsByTagName("err");
    if (errors->length() > 0) {
        const auto* error = static_cast<Poco::XML::Element*>(errors->item(0));
        throw Poco::RuntimeException("error " + error->getAttribute("code") + ", " +
                                     error->getAttribute("msg"));
    }
    const Poco::AutoPtr<Poco::XML::NodeList> sets = document->getElementsByTagName("photoset");
    return static_cast<long>(sets->length());
}

std::string askServiceOfToday(const Credentials& credentials) {
    const ServicePlace place = placeOf(credentials);
    flickr_gateway::RateLimit rate(0);
    flickr_gateway::HttpClient http(place.trust, rate);
    flickr_gateway::PatienceLimits limits;
    limits.giveUp = std::chrono::seconds(kPatienceSeconds);
    flickr_gateway::ServiceClient service(place.addresses.rest, keysOf(credentials), "", limits);
    try {
        const auto answer = service.call(http, "flickr.test.login", {}, [] { return false; });
        return "The service accepts the sign-in of " + printable(answer.userName) + ".";
    } catch (flickr_gateway::Failure& failure) {
        throw CannotBegin(failure.what());
    }
}

}  // namespace

std::string askService(const Configuration& configuration, const Credentials& credentials) {
    if (credentials.isOfToday()) return askServiceOfToday(credentials);
    const std::string server = Poco::URI(configuration.dataUrl).getAuthority();
    try {
        return "The service at " + server + " accepts the credentials, and lists " +
               formatCount(countSets(configuration, credentials.token), "photo set") + ".";
    } catch (Poco::Exception& exception) {
        throw CannotBegin("The service at " + server +
                          " cannot be used: " + plainReason(exception.displayText()));
    }
}

}  // namespace flickr_app
