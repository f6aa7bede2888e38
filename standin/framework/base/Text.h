// Texts of any origin as text for one line.

#ifndef STANDIN_FRAMEWORK_BASE_TEXT_H
#define STANDIN_FRAMEWORK_BASE_TEXT_H

#include <string>

namespace Norvale_Plugin_Core {

/// The text as valid UTF-8 on one line: control characters, line and paragraph separators, the characters
/// that turn the direction of writing and bytes that are no UTF-8 are written as \n, \x1b or \u{202e}, and
/// a backslash as two. Texts of more than 16 KiB are cut, which the end says.
std::string oneLine(const std::string& text);

}  // namespace Norvale_Plugin_Core

#endif
