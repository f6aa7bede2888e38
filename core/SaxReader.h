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
    /// Reads a whole document and hands its events to this handler. A stop request ends the reading early.
    ///
    /// What was not listed must not pass for what is not there. So Poco::Exception is thrown for a document
    ///   - that is not well-formed,
    ///   - that is no answer of the service, but a network's sign-in page, for example,
    ///   - that costs more than any answer should,
    ///   - in which the service tells of a failure, unless readsFailure().
    /// What the handler throws passes through.
    ///
    /// characters() gets a CDATA section in one call. It also gets a text in one call, if that has no
    /// references, no line breaks and at most 4,000 bytes of UTF-8.
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

/// The body up to its end, or up to where a stop request came. Throws Poco::DataFormatException when it is
/// larger than any answer of the service, or breaks off.
std::string readWhole(std::istream& body);

/// The whole number that an attribute holds. The service leaves a size empty that it does not know: 0. Throws
/// Poco::Exception for text that is no number.
int toInt(const std::string& text);

}  // namespace Norvale_Plugin_Flickr

#endif
