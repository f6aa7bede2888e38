// Reading XML answers with event handlers.

#ifndef CORE_SAXREADER_H
#define CORE_SAXREADER_H

#include <Poco/SAX/ContentHandler.h>
#include <Poco/SAX/LexicalHandler.h>

#include <istream>
#include <string>

namespace Norvale_Plugin_Flickr {

/// Base of the event handlers: takes every event and does nothing with it.
class SaxReader : public Poco::XML::ContentHandler, public Poco::XML::LexicalHandler {
public:
    /// Reads a whole document, handing its events to this handler. Throws Poco::Exception for a document
    /// that is not well-formed, for one that is no answer of the service (a sign-in page of the network, for
    /// example), for one that costs more than any answer should, and for one in which the service tells of a
    /// failure, and whatever the handler throws: what was not listed must not pass for what is not there.
    /// A stop request ends the reading early, without an exception.
    ///
    /// characters() gets each CDATA section in one call, and so text without references and line breaks of up
    /// to 4,000 bytes of UTF-8.
    void read(const std::string& document);

    /// Whether the handler deals with <rsp stat="fail"> itself.
    virtual bool readsFailure() const { return false; }

    void setDocumentLocator(const Poco::XML::Locator* locator) override { locator_ = locator; }
    void startDocument() override {}
    void endDocument() override {}
    void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                      const Poco::XML::Attributes&) override {}
    void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                    const Poco::XML::XMLString&) override {}
    void characters(const Poco::XML::XMLChar[], int, int) override {}
    void ignorableWhitespace(const Poco::XML::XMLChar[], int, int) override {}
    void processingInstruction(const Poco::XML::XMLString&, const Poco::XML::XMLString&) override {}
    void startPrefixMapping(const Poco::XML::XMLString&, const Poco::XML::XMLString&) override {}
    void endPrefixMapping(const Poco::XML::XMLString&) override {}
    void skippedEntity(const Poco::XML::XMLString&) override {}

    void startDTD(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                  const Poco::XML::XMLString&) override {}
    void endDTD() override {}
    void startEntity(const Poco::XML::XMLString&) override {}
    void endEntity(const Poco::XML::XMLString&) override {}
    void startCDATA() override {}
    void endCDATA() override {}
    void comment(const Poco::XML::XMLChar[], int, int) override {}

private:
    const Poco::XML::Locator* locator_ = nullptr;
};

/// The body up to its end, or up to where a stop request came. Throws Poco::DataFormatException for a body
/// that is larger than any answer of the service or that breaks off.
std::string readWhole(std::istream& body);

/// The whole number that an attribute holds; 0 for an empty one, which the service writes for a size that it
/// does not know. Throws Poco::Exception for text that is no number.
int toInt(const std::string& text);

}  // namespace Norvale_Plugin_Flickr

#endif
