#include "core/SaxReader.h"

#include <Poco/DynamicAny.h>
#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <streambuf>
#include <utility>

#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

namespace {

// Bytes of an answer. The service's largest is many times smaller.
constexpr std::size_t kMaximumAnswer = 64u << 20;
// Bytes of one tag, comment or text. With each piece the parser looks at an unfinished one from its start
// again: for large ones that takes hours.
constexpr std::size_t kMaximumToken = 256u << 10;
constexpr int kMaximumDepth = 64;
// Bytes that the parser takes at a time.
constexpr std::size_t kPiece = 4096;

/// A part of a document: a text, or a tag, comment, instruction or CDATA section.
struct Token {
    std::size_t begin = 0;
    std::size_t end = 0;
    bool isText = false;  ///< then the "<" behind it belongs to it

    std::size_t size() const { return end - begin; }
};

/// The end of what the closing text ends, searched from a place.
std::size_t behind(const std::string& document, const char* closing, std::size_t from) {
    const std::size_t at = document.find(closing, from);
    return at == std::string::npos ? document.size() : at + std::char_traits<char>::length(closing);
}

/// The end of the tag that begins at a place; a ">" in an attribute's value is none.
std::size_t behindTag(const std::string& document, std::size_t from) {
    for (std::size_t at = from; (at = document.find_first_of("\"'>", at)) != std::string::npos; ++at) {
        if (document[at] == '>') return at + 1;
        at = document.find(document[at], at + 1);
        if (at == std::string::npos) break;
    }
    return document.size();
}

/// The token behind another one.
Token tokenBehind(const std::string& document, const Token& last) {
    Token token;
    token.begin = last.isText ? last.end - 1 : last.end;
    const auto begins = [&](const char* text) {
        return document.compare(token.begin, std::char_traits<char>::length(text), text) == 0;
    };
    if (!begins("<")) {
        token.isText = true;
        token.end = behind(document, "<", token.begin);
    } else if (begins("<!--")) {
        token.end = behind(document, "-->", token.begin + 4);
    } else if (begins("<![CDATA[")) {
        token.end = behind(document, "]]>", token.begin + 9);
    } else if (begins("<?")) {
        token.end = behind(document, "?>", token.begin + 2);
    } else if (begins("<!")) {
        // With entities and defaults a few bytes can stand for any number of them.
        throw Poco::DataFormatException("the answer declares a document type of its own");
    } else {
        token.end = behindTag(document, token.begin + 1);
    }
    return token;
}

/// Refuses, by one look over it, a document with a part that is larger than any of the service's.
void requireModestTokens(const std::string& document) {
    if (document.find('\0') != std::string::npos) throw Poco::DataFormatException("the answer is no text");
    for (Token token; token.end < document.size();) {
        token = tokenBehind(document, token);
        if (token.size() > kMaximumToken) {
            throw Poco::DataFormatException("the answer has a part of " + std::to_string(token.size()) +
                                            " bytes, which is none of the service's");
        }
    }
}

/// Gives a document to the parser piece by piece. The parser hands on as much of a text as it has. So a piece
/// ends before a text that does not fit whole, unless the text is larger than a piece.
class Pieces : public std::streambuf {
public:
    /// ended: asked before each piece; true ends the document there.
    Pieces(const std::string& document, std::function<bool()> ended)
        : document_(document), ended_(std::move(ended)) {}

protected:
    int_type underflow() override {
        if (at_ == document_.size() || ended_()) return traits_type::eof();
        const std::size_t end = pieceEnd();
        char* text = const_cast<char*>(document_.data());  // It is only read.
        setg(text + at_, text + at_, text + end);
        at_ = end;
        return traits_type::to_int_type(document_[static_cast<std::size_t>(gptr() - text)]);
    }

private:
    std::size_t pieceEnd() {
        if (document_.size() - at_ <= kPiece) return document_.size();
        const std::size_t end = at_ + kPiece;
        while (token_.end < end) token_ = tokenBehind(document_, token_);
        return token_.isText && token_.begin > at_ ? token_.begin : end;
    }

    const std::string& document_;
    std::function<bool()> ended_;
    std::size_t at_ = 0;
    Token token_;  // the one in which the last piece ended
};

/// Hands the events on until the handler throws, and keeps what it threw. An exception must not pass through
/// the parser's C code: the parser is never freed then.
class EventGate : public Poco::XML::DefaultHandler, public Poco::XML::LexicalHandler {
public:
    explicit EventGate(Poco::XML::ContentHandler& handler) : handler_(handler) {}

    void setDocumentLocator(const Poco::XML::Locator* locator) override {
        handler_.setDocumentLocator(locator);
    }
    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override {
        endText();
        pass([&] {
            look(localName, attributes);
            handler_.startElement(uri, localName, qname, attributes);
        });
    }
    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override {
        endText();
        --depth_;
        pass([&] { handler_.endElement(uri, localName, qname); });
    }
    void characters(const Poco::XML::XMLChar text[], int start, int length) override {
        textSize_ += static_cast<std::size_t>(length);
        if (inSection_) {
            section_.append(text + start, static_cast<std::size_t>(length));
            return;
        }
        endSections();
        pass([&] {
            if (textSize_ > kMaximumToken)
                throw Poco::DataFormatException("the answer has a text without end");
            handler_.characters(text, start, length);
        });
    }
    void startCDATA() override { inSection_ = true; }
    void endCDATA() override { inSection_ = false; }
    void startDTD(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                  const Poco::XML::XMLString&) override {}
    void endDTD() override {}
    void startEntity(const Poco::XML::XMLString&) override {}
    void endEntity(const Poco::XML::XMLString&) override {}
    void comment(const Poco::XML::XMLChar[], int, int) override {}

    /// Whether the handler threw, so that the rest of the document is of no use.
    bool ended() const { return thrown_ != nullptr; }

    void rethrow() const {
        if (thrown_) std::rethrow_exception(thrown_);
    }

    /// Throws what the service tells of in a document that could be read.
    void requireSuccess() const {
        if (failed_) throw Poco::RuntimeException("the service answers with error " + error_);
    }

private:
    void look(const Poco::XML::XMLString& name, const Poco::XML::Attributes& attributes) {
        static constexpr const char* kRoots[] = {"rsp",   "photosets", "photoset", "photos",
                                                 "photo", "sizes",     "size"};
        if (depth_++ == 0 && std::find(std::begin(kRoots), std::end(kRoots), name) == std::end(kRoots)) {
            throw Poco::DataFormatException("the answer is none of the service's");
        }
        if (depth_ > kMaximumDepth) throw Poco::DataFormatException("the answer is nested without end");
        const auto value = [&](const char* attribute) { return attributes.getValue("", attribute); };
        if (name == "rsp") failed_ = value("stat") == "fail";
        if (name == "err" && failed_) error_ = value("code") + ": " + value("msg");
    }

    /// Hands on what CDATA sections held. Sections that follow each other are one text: in this way a text
    /// can hold the mark that ends a section.
    void endSections() {
        if (section_.empty()) return;
        const std::string text = std::move(section_);
        section_.clear();
        pass([&] {
            if (text.size() > kMaximumToken)
                throw Poco::DataFormatException("the answer has a text without end");
            handler_.characters(text.data(), 0, static_cast<int>(text.size()));
        });
    }

    void endText() {
        endSections();
        textSize_ = 0;
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
    int depth_ = 0;
    bool inSection_ = false;
    std::string section_;       // of CDATA sections, not handed on yet
    std::size_t textSize_ = 0;  // since the last tag
    bool failed_ = false;
    std::string error_;
};

}  // namespace

void SaxReader::read(const std::string& document) {
    requireModestTokens(document);
    EventGate gate(*this);
    bool stopped = false;
    Pieces pieces(document, [&] {
        stopped = stopped || isStopped();
        return stopped || gate.ended();
    });
    std::istream stream(&pieces);
    Poco::XML::InputSource source(stream);
    Poco::XML::SAXParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
    parser.setFeature(Poco::XML::SAXParser::FEATURE_PARTIAL_READS, true);
    parser.setContentHandler(&gate);
    parser.setProperty(Poco::XML::XMLReader::PROPERTY_LEXICAL_HANDLER,
                       static_cast<Poco::XML::LexicalHandler*>(&gate));
    try {
        parser.parse(&source);
    } catch (Poco::Exception&) {
        gate.rethrow();  // It came first.
        if (stopped) return;
        throw;
    }
    gate.rethrow();
    if (!readsFailure()) gate.requireSuccess();
}

std::string readWhole(std::istream& body) {
    std::string text;
    char block[kBlockSize];
    while (const std::streamsize count = readBlock(body, block)) {
        text.append(block, static_cast<std::size_t>(count));
        if (text.size() > kMaximumAnswer) throw Poco::DataFormatException("the answer has no end");
        if (isStopped()) return text;
    }
    if (body.bad() && !isStopped()) throw Poco::DataFormatException("the answer breaks off");
    return text;
}

int toInt(const std::string& text) {
    if (text.empty()) return 0;
    return Poco::DynamicAny(text).convert<int>();
}

}  // namespace Norvale_Plugin_Flickr
