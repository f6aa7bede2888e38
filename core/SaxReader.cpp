#include "core/SaxReader.h"

#include <Poco/DynamicAny.h>
#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <exception>

#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

namespace {

// Many times the largest answer of the service; a peer that sends more is not the service.
constexpr std::size_t kMaximumAnswer = 256u << 20;

/// Hands the events on until the handler throws, and keeps what it threw: an exception that passes through
/// the parser's C code leaves the parser in a state in which it is never freed.
class EventGate : public Poco::XML::DefaultHandler {
public:
    explicit EventGate(Poco::XML::ContentHandler& handler) : handler_(handler) {}

    void setDocumentLocator(const Poco::XML::Locator* locator) override {
        handler_.setDocumentLocator(locator);
    }
    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override {
        look(localName, attributes);
        pass([&] { handler_.startElement(uri, localName, qname, attributes); });
    }
    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override {
        pass([&] { handler_.endElement(uri, localName, qname); });
    }
    void characters(const Poco::XML::XMLChar text[], int start, int length) override {
        pass([&] { handler_.characters(text, start, length); });
    }

    void rethrow() const {
        if (thrown_) std::rethrow_exception(thrown_);
    }

    /// Throws what is wrong with a document that could be read.
    void requireAnswer(bool failureIsRead) const {
        if (!known_) throw Poco::DataFormatException("the answer is none of the service's");
        if (failed_ && !failureIsRead)
            throw Poco::RuntimeException("the service answers with error " + error_);
    }

private:
    void look(const Poco::XML::XMLString& name, const Poco::XML::Attributes& attributes) {
        const auto value = [&](const char* attribute) { return attributes.getValue("", attribute); };
        if (name == "rsp") failed_ = value("stat") == "fail";
        if (name == "err" && failed_) error_ = value("code") + ": " + value("msg");
        known_ = known_ || name == "rsp" || name == "photoset" || name == "photo" || name == "size";
    }

    template <typename Event>
    void pass(Event event) {
        if (thrown_) return;
        try {
            event();
        } catch (...) {
            thrown_ = std::current_exception();
        }
    }

    Poco::XML::ContentHandler& handler_;
    std::exception_ptr thrown_;
    bool known_ = false;
    bool failed_ = false;
    std::string error_;
};

}  // namespace

void SaxReader::read(const std::string& document) {
    Poco::XML::SAXParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
    EventGate gate(*this);
    parser.setContentHandler(&gate);
    parser.setProperty(Poco::XML::XMLReader::PROPERTY_LEXICAL_HANDLER,
                       static_cast<Poco::XML::LexicalHandler*>(this));
    try {
        parser.parseString(document);
    } catch (Poco::Exception&) {
        gate.rethrow();  // It came first.
        throw;
    }
    gate.rethrow();
    gate.requireAnswer(readsFailure());
}

std::string readWhole(std::istream& body) {
    std::string text;
    char block[kBlockSize];
    while (const std::streamsize count = readBlock(body, block)) {
        text.append(block, count);
        if (text.size() > kMaximumAnswer) throw Poco::DataFormatException("the answer has no end");
        if (Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isBackupStopped()) break;
    }
    return text;
}

int toInt(const std::string& text) {
    if (text.empty()) return 0;
    return Poco::DynamicAny(text).convert<int>();
}

}  // namespace Norvale_Plugin_Flickr
