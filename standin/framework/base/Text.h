// Texts of any origin as valid UTF-8, and as text for one line.

#ifndef STANDIN_FRAMEWORK_BASE_TEXT_H
#define STANDIN_FRAMEWORK_BASE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace flickr_standin {

/// The text as valid UTF-8: each byte that belongs to no character becomes "_".
std::string validUtf8(const std::string& text);

/// The same, with another sign for each character that is unwanted.
std::string withoutCharacters(const std::string& text, bool (*isUnwanted)(std::int32_t character),
                              char sign = '_');

/// The text cut to at most limit bytes, between two characters.
std::string cutUtf8(const std::string& text, std::size_t limit);

/// True when the text begins with start.
bool startsWith(std::string_view text, std::string_view start);

/// True when the text is ASCII only.
bool isAscii(const std::string& text);

/// The text as utf8proc maps it with the options (UTF8PROC_..., fold case among them); what is no UTF-8
/// becomes "_" before. ASCII is only made small.
std::string folded(const std::string& text, int options);

/// The whole number that the text is; 0 for any other text.
long wholeNumber(const std::string& text);

/// The text without white space at its begin and end.
std::string trimmed(std::string text);

/// The text without what a search overlooks: case, accents, and the forms of one letter ("Straße" and
/// "STRASSE", "Łódź" and "lodz"). The gallery's page compares the same way.
std::string searchKey(const std::string& text);

/// The text as valid UTF-8 on one line: control characters, line and paragraph separators, the characters
/// that turn the direction of writing and bytes that are no UTF-8 are written as \n, \x1b or \u{202e}, and
/// a backslash as two. Texts of more than 16 KiB are cut, which the end says.
std::string oneLine(const std::string& text);

/// The same for a person at a terminal, never cut: "?" stands for each of those characters, "_" for a byte
/// that is no UTF-8.
std::string printable(const std::string& text);

}  // namespace flickr_standin

#endif
