#include "sim/AuthorizePage.h"

namespace flickr_sim {

namespace {

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>
  body { margin: 0; min-height: 100vh; display: flex; align-items: center; justify-content: center;
         background: #f3f5f6; color: #212124; font: 17px/1.5 system-ui, sans-serif; }
  main { background: #fff; max-width: 26rem; margin: 1rem; padding: 2rem 2.5rem; border-radius: 12px;
         box-shadow: 0 2px 16px rgba(0, 0, 0, .12); }
  .brand { display: flex; gap: 6px; align-items: center; font-weight: 600; color: #555; }
  .dot { width: 16px; height: 16px; border-radius: 50%; background: #0063dc; }
  .dot + .dot { background: #d6006d; margin-right: 4px; }
  h1 { font-size: 1.4rem; margin: 1.2rem 0 .6rem; }
  button { font: inherit; font-weight: 600; padding: .7rem 1.2rem; border: 0; border-radius: 8px;
           margin: 1rem .6rem 0 0; cursor: pointer; background: #e4e8ea; color: #212124; }
  button#allow { background: #0063dc; color: #fff; }
  #code { font: 700 2rem/1.2 ui-monospace, monospace; letter-spacing: .06em; margin: 1rem 0; }
</style>
)";

std::string escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '<' || c == '>' || c == '&' || c == '"') {
            escaped += "&#" + std::to_string(static_cast<int>(c)) + ';';
        } else {
            escaped += c;
        }
    }
    return escaped;
}

/// body: what follows the heading, as HTML.
std::string page(const std::string& title, const std::string& body) {
    return kHead + ("<title>" + escape(title)) +
           "</title>\n</head>\n<body>\n<main>\n<div class=\"brand\"><span class=\"dot\"></span>"
           "<span class=\"dot\"></span>Simulated Flickr</div>\n<h1>" +
           escape(title) + "</h1>\n" + body + "</main>\n</body>\n</html>\n";
}

std::string paragraph(const std::string& sentence) {
    return "<p>" + escape(sentence) + "</p>\n";
}

}  // namespace

std::string authorizeForm(const std::string& userName, const std::string& requestToken,
                          const std::string& permissions) {
    const auto hidden = [](const char* name, const std::string& value) {
        return "<input type=\"hidden\" name=\"" + std::string(name) + "\" value=\"" + escape(value) + "\">\n";
    };
    return page(
        "May this application see your photos?",
        paragraph("You are signed in as " + userName + ". The application asks for the permission \"" +
                  permissions + "\" for your account, private photos and videos included.") +
            "<form method=\"post\" action=\"/services/oauth/authorize\">\n" +
            hidden("oauth_token", requestToken) + hidden("perms", permissions) +
            "<button id=\"allow\" name=\"answer\" value=\"allow\">Yes, allow it</button>\n"
            "<button id=\"deny\" name=\"answer\" value=\"deny\">No</button>\n</form>\n");
}

std::string codePage(const std::string& code) {
    return page("Your code", paragraph("Type this code into the application that asked for it:") +
                                 "<p id=\"code\">" + escape(code) + "</p>\n");
}

std::string messagePage(const std::string& title, const std::string& sentence) {
    return page(title, paragraph(sentence));
}

}  // namespace flickr_sim
