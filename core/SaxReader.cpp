#include "core/SaxReader.h"

#include <Poco/DynamicAny.h>
#include <Poco/Exception.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include "core/RunSupport.h"

namespace Norvale_Plugin_Flickr {

namespace {

// Many times the largest answer of the service; a peer that sends more is not the service.
constexpr std::size_t kMaximumAnswer = 256u << 20;

}  // namespace

void SaxReader::read(const std::string& document) {
    Poco::XML::SAXParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
    parser.setContentHandler(this);
    parser.setProperty(Poco::XML::XMLReader::PROPERTY_LEXICAL_HANDLER,
                       static_cast<Poco::XML::LexicalHandler*>(this));
    parser.parseString(document);
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
