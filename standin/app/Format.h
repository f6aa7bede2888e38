// Numbers and texts as a person reads them on a terminal.

#ifndef STANDIN_APP_FORMAT_H
#define STANDIN_APP_FORMAT_H

#include <string>

#include "standin/framework/base/Text.h"

namespace flickr_app {

/// "512 B", "1.5 kB", "20.0 MB": decimal units.
std::string formatBytes(double bytes);

/// "4.2 s", "3 min 05 s", "2 h 07 min".
std::string formatDuration(double seconds);

/// "12,345".
std::string formatNumber(long number);

/// "1 item", "12,345 items".
std::string formatCount(long count, const std::string& noun);

using flickr_standin::printable;

/// How many columns of a terminal the text takes; East Asian characters take two.
std::size_t columnsIn(const std::string& text);

/// The text in no more than so many columns, with "..." at its end when it is cut.
std::string cutColumns(const std::string& text, std::size_t columns);

}  // namespace flickr_app

#endif
