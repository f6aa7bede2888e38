#include "gateway/ServiceAnswer.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <utility>

#include "gateway/Failure.h"

namespace flickr_gateway {

namespace {

using Poco::XML::XMLString;

constexpr std::size_t kLargestText = 256 << 10;

unsigned numberOf(const std::string& text) {
    unsigned number = 0;
    return Poco::NumberParser::tryParseUnsigned(text, number) ? number : 0;
}

int pixelsOf(const std::string& text) {
    int number = 0;
    return Poco::NumberParser::tryParse(text, number) && number > 0 ? number : 0;
}

/// Throws nothing: an exception would pass through the parser, which is written in C.
class Reader : public Poco::XML::DefaultHandler {
public:
    ServiceAnswer answer;

    /// Throws what is wrong with a document that is well-formed.
    void requireAnswer() const {
        if (tooLong_) fail("a text in it has no end");
        if (!known_) fail("it is no answer of the service");
    }

    [[noreturn]] static void fail(const std::string& reason) {
        throw Failure(Failure::Kind::Unavailable, "The service's answer cannot be read: " + reason + ".");
    }

    void startElement(const XMLString&, const XMLString& name, const XMLString&,
                      const Poco::XML::Attributes& attributes) override {
        for (int i = 0; i < attributes.getLength(); ++i) {
            tooLong_ = tooLong_ || attributes.getValue(i).size() > kLargestText;
        }
        if (tooLong_) return;
        const auto value = [&](const char* attribute) -> const XMLString& {
            return attributes.getValue(XMLString(), attribute);
        };
        text_ = nullptr;
        if (depth_++ == 0) {
            answer.failed = value("stat") == "fail";
            known_ = name == "rsp" && (answer.failed || value("stat") == "ok");
        } else if (name == "err") {
            answer.code = static_cast<int>(numberOf(value("code")));
            answer.message = value("msg");
        } else if (name == "photosets" || name == "photos" || (name == "photoset" && depth_ == 2)) {
            answer.pages = numberOf(value("pages"));
            answer.total = numberOf(value("total"));
        } else if (name == "photoset") {
            answer.sets.push_back({value("id"), value("primary"), value("photos"), value("videos"), "", ""});
        } else if (name == "photo") {
            readItem(attributes);
        } else if (name == "size") {
            answer.sizes.push_back(
                {value("label"), value("source"), pixelsOf(value("width")), pixelsOf(value("height"))});
        } else if (name == "user") {
            answer.userId = value("id");
        } else {
            text_ = textOf(name);
        }
    }

    void characters(const Poco::XML::XMLChar text[], int start, int length) override {
        if (text_ == nullptr || length <= 0) return;
        text_->append(text + start, static_cast<std::size_t>(length));
        tooLong_ = tooLong_ || text_->size() > kLargestText;
        if (tooLong_) text_ = nullptr;
    }

    void endElement(const XMLString&, const XMLString&, const XMLString&) override {
        --depth_;
        text_ = nullptr;
    }

private:
    void readItem(const Poco::XML::Attributes& attributes) {
        const auto value = [&](const std::string& attribute) -> const XMLString& {
            return attributes.getValue(XMLString(), attribute);
        };
        ListedItem item{value("id"),
                        value("title"),
                        value("dateupload"),
                        value("lastupdate"),
                        value("datetaken"),
                        value("media"),
                        value("tags"),
                        "",
                        {}};
        for (const AddressExtra& extra : addressExtras()) {
            const std::string ending = extra.ending;
            const XMLString& source = value("url_" + ending);
            if (source.empty()) continue;
            item.renditions.push_back({extra.label, source, pixelsOf(value("width_" + ending)),
                                       pixelsOf(value("height_" + ending))});
        }
        answer.items.push_back(std::move(item));
    }

    /// Where the text of an element goes.
    std::string* textOf(const XMLString& name) {
        if (name == "username") return &answer.userName;
        if (name == "title" && !answer.sets.empty()) return &answer.sets.back().title;
        if (name != "description") return nullptr;
        if (!answer.items.empty()) return &answer.items.back().description;
        return answer.sets.empty() ? nullptr : &answer.sets.back().description;
    }

    int depth_ = 0;
    std::string* text_ = nullptr;
    bool known_ = false;
    bool tooLong_ = false;
};

}  // namespace

ServiceAnswer readAnswer(const std::string& document) {
    Poco::XML::SAXParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    Reader reader;
    parser.setContentHandler(&reader);
    try {
        parser.parseString(document);
    } catch (Poco::Exception& exception) {
        Reader::fail(exception.displayText());
    }
    reader.requireAnswer();
    return std::move(reader.answer);
}

}  // namespace flickr_gateway
