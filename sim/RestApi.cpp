#include "sim/RestApi.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/StringTokenizer.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <set>

#include "sim/MediaAddress.h"

namespace flickr_sim {

namespace {

constexpr std::size_t kSetPage = 500;
constexpr std::size_t kLoosePage = 100;
constexpr std::size_t kPageMax = 500;

/// Writes XML text; control characters that XML cannot hold are left out. The library's writer is not used:
/// answers have the service's own line breaks and references.
class Xml {
public:
    Xml& raw(const char* text) {
        out_ += text;
        return *this;
    }
    Xml& text(const std::string& text) { return escaped(text, Place::Text); }
    Xml& attribute(const char* name, const std::string& value) {
        out_ += ' ';
        out_ += name;
        out_ += "=\"";
        escaped(value, Place::Attribute);
        out_ += '"';
        return *this;
    }
    template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
    Xml& attribute(const char* name, Number value) {
        return attribute(name, std::to_string(value));
    }
    std::string take() { return std::move(out_); }
    void reserve(std::size_t size) { out_.reserve(size); }

private:
    enum class Place { Text, Attribute };

    Xml& escaped(const std::string& text, Place place) {
        for (const char c : text) {
            if (c == '&') {
                out_ += "&amp;";
            } else if (c == '<') {
                out_ += "&lt;";
            } else if (c == '>') {
                out_ += "&gt;";
            } else if (c == '"') {
                out_ += "&quot;";
            } else if (c == '\r' || (place == Place::Attribute && (c == '\n' || c == '\t'))) {
                // A reader would turn these into blanks or line ends.
                out_ += "&#" + std::to_string(static_cast<int>(c)) + ';';
            } else if (static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t') {
                out_ += c;
            }
        }
        return *this;
    }
    std::string out_;
};

constexpr const char* kStart = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";

/// The position of a page in a list.
struct Paging {
    std::size_t page = 1;
    std::size_t perPage;

    Paging(const Request& call, std::size_t usual) : perPage(usual) {
        unsigned asked = 0;
        if (Poco::NumberParser::tryParseUnsigned(call.parameter("page"), asked) && asked > 0) page = asked;
        if (Poco::NumberParser::tryParseUnsigned(call.parameter("per_page"), asked) && asked > 0) {
            perPage = std::min<std::size_t>(asked, kPageMax);
        }
    }

    std::size_t first() const { return (page - 1) * perPage; }
    std::size_t pages(std::size_t total) const { return (total + perPage - 1) / perPage; }
};

/// What the caller may have of an item.
std::vector<Rendition> offered(const Item& item, const RestContext& context) {
    std::vector<Rendition> all = renditionsOf(item, context.today ? Labels::Today : Labels::Former);
    if (!context.originals) {
        const auto isOriginal = [](const Rendition& rendition) {
            return rendition.label == "Original" || rendition.label == "Video Original" ||
                   rendition.label == "orig";
        };
        all.erase(std::remove_if(all.begin(), all.end(), isOriginal), all.end());
    }
    return all;
}

/// The extra attributes of photos that a call asks for.
class Extras {
public:
    explicit Extras(const Request& call) {
        const Poco::StringTokenizer names(
            call.parameter("extras"), ",",
            Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
        names_.insert(names.begin(), names.end());
        for (const auto& address : kAddresses) {
            if (has(std::string("url_") + address[0])) addresses_.push_back(&address);
        }
    }

    bool has(const std::string& name) const { return names_.count(name) > 0; }

    void write(Xml& xml, const Item& item, const RestContext& context) const {
        if (has("license")) xml.attribute("license", "0");
        if (has("date_upload")) xml.attribute("dateupload", item.uploaded);
        if (has("last_update")) xml.attribute("lastupdate", item.updated);
        if (has("date_taken")) {
            xml.attribute("datetaken", item.taken).attribute("datetakengranularity", "0");
            xml.attribute("datetakenunknown", "0");
        }
        if (has("owner_name")) xml.attribute("ownername", context.credentials.userName);
        if (has("path_alias")) xml.attribute("pathalias", "");
        if (has("o_dims")) xml.attribute("o_width", item.width).attribute("o_height", item.height);
        if (has("geo")) xml.attribute("latitude", 0).attribute("longitude", 0).attribute("accuracy", 0);
        if (has("views")) xml.attribute("views", "7");
        if (has("tags")) {
            std::string tags;
            for (const std::string& tag : item.tags) tags += (&tag == &item.tags.front() ? "" : " ") + tag;
            xml.attribute("tags", tags);
        }
        if (has("machine_tags")) xml.attribute("machine_tags", "");
        if (has("original_format")) {
            xml.attribute("originalsecret", secretOf(item.id)).attribute("originalformat", item.extension);
        }
        if (has("media")) {
            xml.attribute("media", item.isVideo ? "video" : "photo").attribute("media_status", "ready");
        }
        if (addresses_.empty()) return;
        const std::vector<Rendition> renditions = offered(item, context);
        for (const auto* address : addresses_) {
            for (const Rendition& rendition : renditions) {
                if (rendition.label != (*address)[1] || !rendition.hasSource) continue;
                if (rendition.label == "Original" && !context.originalsInLists) continue;
                const std::string suffix = (*address)[0];
                xml.attribute(("url_" + suffix).c_str(),
                              context.mediaBase + mediaPath(item, rendition.label));
                xml.attribute(("height_" + suffix).c_str(), rendition.height);
                xml.attribute(("width_" + suffix).c_str(), rendition.width);
            }
        }
    }

private:
    using Address = std::array<const char*, 2>;
    static constexpr Address kAddresses[] = {
        {"sq", "Square"},      {"m", "Medium"},      {"o", "Original"},    {"t", "Thumbnail"},
        {"q", "Large Square"}, {"s", "Small"},       {"n", "Small 320"},   {"z", "Medium 640"},
        {"c", "Medium 800"},   {"l", "Large"},       {"w", "Small 400"},   {"h", "Large 1600"},
        {"k", "Large 2048"},   {"3k", "X-Large 3K"}, {"4k", "X-Large 4K"}, {"5k", "X-Large 5K"},
        {"6k", "X-Large 6K"},
    };

    std::set<std::string> names_;
    std::vector<const Address*> addresses_;
};

/// The two lists of items write them a little differently.
enum class List { OfSet, OfNoSet };

void writePhotos(Xml& xml, const Account::Page& page, List list, const Extras& extras,
                 const RestContext& context) {
    const bool inSet = list == List::OfSet;
    xml.reserve(page.items.size() * 1024 + 1024);
    for (const Account::ItemPtr& item : page.items) {
        xml.raw("\n<photo").attribute("id", item->id);
        if (!inSet) xml.attribute("owner", context.credentials.userId);
        xml.attribute("secret", secretOf(item->id)).attribute("server", kMediaServer).attribute("farm", 66);
        xml.attribute("title", item->title);
        if (inSet) xml.attribute("isprimary", item->id == page.set.cover ? 1 : 0);
        xml.attribute("ispublic", 1).attribute("isfriend", 0).attribute("isfamily", 0);
        extras.write(xml, *item, context);
        if (extras.has("description")) {
            xml.raw(">\n<description>").text(item->description).raw("</description>\n</photo>");
        } else {
            xml.raw(" />");
        }
    }
}

std::string photosetsGetList(const Request& call, const RestContext& context) {
    std::vector<Account::Set> sets = context.account.sets();
    const std::size_t total = sets.size();
    // Without a page, all sets come at once.
    Paging paging(call, std::max<std::size_t>(total, 1));
    if (!call.parameter("page").empty() || !call.parameter("per_page").empty())
        paging = Paging(call, kSetPage);
    const std::size_t first = std::min(paging.first(), total);
    const std::size_t last = std::min(first + paging.perPage, total);

    Xml xml;
    xml.raw(kStart).raw("<rsp stat=\"ok\">\n<photosets").attribute("page", paging.page);
    xml.attribute("pages", paging.pages(total))
        .attribute("perpage", paging.perPage)
        .attribute("total", total);
    xml.attribute("cancreate", 1).raw(">");
    for (std::size_t i = first; i < last; ++i) {
        const Account::Set& set = sets[i];
        xml.raw("\n<photoset").attribute("id", set.id).attribute("owner", context.credentials.userId);
        xml.attribute("username", context.credentials.userName)
            .attribute("primary", set.cover.empty() ? "0" : set.cover);
        xml.attribute("secret", secretOf(set.cover)).attribute("server", kMediaServer).attribute("farm", 66);
        xml.attribute("count_views", 12).attribute("count_comments", 0);
        xml.attribute("count_photos", set.photos).attribute("count_videos", set.videos);
        xml.attribute("photos", set.photos).attribute("videos", set.videos);
        xml.attribute("can_comment", 1).attribute("date_create", set.created);
        xml.attribute("date_update", set.updated).attribute("sorting_option_id", "custom-order");
        xml.attribute("needs_interstitial", 0).attribute("visibility_can_see_set", 1);
        xml.raw(">\n<title>").text(set.title).raw("</title>\n<description>").text(set.description);
        xml.raw("</description>\n</photoset>");
    }
    return xml.raw("\n</photosets>\n</rsp>\n").take();
}

std::string photosetsGetPhotos(const Request& call, const RestContext& context) {
    const std::string id = call.parameter("photoset_id");
    if (id.empty()) return failAnswer(1, "Photoset not found");
    if (context.today && call.parameter("user_id") != context.credentials.userId) {
        return failAnswer(2, "User not found");
    }
    Paging paging(call, kSetPage);
    Account::Page page = context.account.page(id, paging.first(), paging.perPage);
    const std::size_t pages = std::max<std::size_t>(paging.pages(page.total), 1);
    if (paging.page > pages) {
        paging.page = pages;
        page = context.account.page(id, paging.first(), paging.perPage);
    }

    Xml xml;
    xml.raw(kStart).raw("<rsp stat=\"ok\">\n<photoset").attribute("id", id);
    xml.attribute("primary", page.set.cover)
        .attribute("owner", context.credentials.userId)
        .attribute("ownername", context.credentials.userName);
    xml.attribute("page", paging.page).attribute("per_page", paging.perPage);
    xml.attribute("perpage", paging.perPage).attribute("pages", pages);
    xml.attribute("title", page.set.title).attribute("total", page.total).raw(">");
    writePhotos(xml, page, List::OfSet, Extras(call), context);
    return xml.raw("\n</photoset>\n</rsp>\n").take();
}

std::string photosGetNotInSet(const Request& call, const RestContext& context) {
    Paging paging(call, kLoosePage);
    Account::Page page = context.account.page("", paging.first(), paging.perPage);
    const std::size_t pages = paging.pages(page.total);
    if (context.repeatLastPage && paging.page > pages && pages > 0) {
        paging.page = pages;
        page = context.account.page("", paging.first(), paging.perPage);
    }

    Xml xml;
    xml.raw(kStart)
        .raw("<rsp stat=\"ok\">\n<photos")
        .attribute("page", paging.page)
        .attribute("pages", pages);
    xml.attribute("perpage", paging.perPage).attribute("total", page.total).raw(">");
    writePhotos(xml, page, List::OfNoSet, Extras(call), context);
    return xml.raw("\n</photos>\n</rsp>\n").take();
}

std::string photosGetSizes(const Request& call, const RestContext& context) {
    const Account::ItemPtr item = context.account.item(call.parameter("photo_id"));
    Xml xml;
    xml.raw(kStart).raw("<rsp stat=\"ok\">\n<sizes").attribute("canblog", 1).attribute("canprint", 1);
    xml.attribute("candownload", 1).raw(">");
    for (const Rendition& rendition : offered(*item, context)) {
        xml.raw("\n<size").attribute("label", rendition.label);
        xml.attribute("width", rendition.width).attribute("height", rendition.height);
        xml.attribute("source", rendition.hasSource ? context.mediaBase + mediaPath(*item, rendition.label)
                                                    : std::string());
        xml.attribute("url", context.mediaBase + "/photos/" + kOwner + '/' + item->id + "/sizes/");
        xml.attribute("media", isVideoLabel(rendition.label) ? "video" : "photo").raw(" />");
    }
    return xml.raw("\n</sizes>\n</rsp>\n").take();
}

std::string testLogin(const RestContext& context) {
    Xml xml;
    xml.raw(kStart).raw("<rsp stat=\"ok\">\n<user").attribute("id", context.credentials.userId);
    xml.raw(">\n<username>").text(context.credentials.userName).raw("</username>\n<path_alias />\n</user>");
    return xml.raw("\n</rsp>\n").take();
}

}  // namespace

std::string answerCall(const Request& call, const RestContext& context) {
    if (call.parameter("api_key") != context.credentials.apiKey) {
        return failAnswer(100, "Invalid API Key (Key has invalid format)");
    }
    if (call.parameter("api_sig") != signatureOf(context.credentials.apiSecret, call.parameters)) {
        return failAnswer(96, "Invalid signature");
    }
    if (call.parameter("auth_token") != context.credentials.token) {
        return failAnswer(98, "Login failed / Invalid auth token");
    }
    return answerMethod(call, context);
}

std::string answerMethod(const Request& call, const RestContext& context) {
    const std::string method = call.parameter("method");
    const bool asksPhoto = method == "flickr.photos.getSizes";
    try {
        if (method == "flickr.photosets.getList") return photosetsGetList(call, context);
        if (method == "flickr.photosets.getPhotos") return photosetsGetPhotos(call, context);
        if (method == "flickr.photos.getNotInSet") return photosGetNotInSet(call, context);
        if (asksPhoto) return photosGetSizes(call, context);
        if (context.today && method == "flickr.test.login") return testLogin(context);
    } catch (Poco::NotFoundException&) {
        return failAnswer(1, asksPhoto ? "Photo not found" : "Photoset not found");
    }
    return failAnswer(112, "Method \"" + method + "\" not found");
}

std::string failAnswer(int code, const std::string& message) {
    Xml xml;
    xml.raw(kStart).raw("<rsp stat=\"fail\">\n\t<err").attribute("code", code).attribute("msg", message);
    return xml.raw(" />\n</rsp>\n").take();
}

std::string signatureOf(const std::string& secret, const std::map<std::string, std::string>& parameters) {
    std::string text = secret;
    for (const auto& parameter : parameters) {
        if (parameter.first != "api_sig") text += parameter.first + parameter.second;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < length; ++i) {
        hex += "0123456789abcdef"[digest[i] >> 4];
        hex += "0123456789abcdef"[digest[i] & 15];
    }
    return hex;
}

}  // namespace flickr_sim
