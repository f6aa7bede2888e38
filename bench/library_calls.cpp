#include "bench/library_calls.h"

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>
#include <Poco/URI.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "standin/framework/store/BackupDatabase.h"

namespace {

using Poco::Data::Keywords::into;
using Poco::Data::Keywords::now;
using Poco::Data::Keywords::use;
using Poco::Data::SQLite::Connector;

std::string databasePath;
std::unique_ptr<flickr_standin::BackupDatabase> host;

template <typename Work>
void guarded(const char* what, Work work) {
    try {
        work();
    } catch (Poco::Exception& exception) {
        std::fprintf(stderr, "%s: %s\n", what, exception.displayText().c_str());
        std::exit(1);
    }
}

}  // namespace

void libraryFetch(const char* url, void (*sink)(void*, const char*, std::size_t), void* context) {
    guarded(url, [&] {
        const Poco::URI address(url);
        Poco::Net::HTTPClientSession session(address.getHost(), address.getPort());
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, address.getPathAndQuery(),
                                       Poco::Net::HTTPRequest::HTTP_1_1);
        request.setKeepAlive(false);
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::istream& body = session.receiveResponse(response);
        if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) throw Poco::IOException("status");
        char block[8192];
        do {
            body.read(block, sizeof block);
            sink(context, block, static_cast<std::size_t>(body.gcount()));
        } while (body);
    });
}

void libraryRead(const char* document, std::size_t size) {
    guarded("reading an answer", [&] {
        Poco::XML::DefaultHandler nothing;
        Poco::XML::SAXParser parser;
        parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
        parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
        parser.setContentHandler(&nothing);
        parser.parseString(std::string(document, size));
    });
}

void libraryOpen(const char* database) {
    databasePath = database;
    guarded(database, [&] { host = std::make_unique<flickr_standin::BackupDatabase>(databasePath); });
}

void libraryLookUp(const char* itemId, int times) {
    if (!host) return;
    guarded("looking an item up", [&] {
        for (int i = 0; i < times; ++i) {
            std::string name, id = itemId;
            Connector::registerConnector();
            Poco::Data::Session session("SQLite", databasePath);
            session << "SELECT ItemName FROM backupmetadata WHERE ItemId = :photoId", into(name), use(id),
                now;
            session.close();
            Connector::unregisterConnector();
        }
    });
}
