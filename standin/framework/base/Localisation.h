// The host's words in other languages, in one place for the framework and for the host's language service.

#ifndef STANDIN_FRAMEWORK_BASE_LOCALISATION_H
#define STANDIN_FRAMEWORK_BASE_LOCALISATION_H

#include <map>
#include <string>
#include <vector>

#include "standin/framework/base/Names.h"

namespace flickr_standin {

/// Key of the word that names the folders of thumbnails.
constexpr const char* kThumbnailKey = "ThumbnailKey";

/// Keys of the words for the months, from January on.
constexpr const char* kMonthKeys[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/// The cultures for which there are words: "de", "en", "fr", "ja".
std::vector<std::string> knownCultures();

/// The word of one key in a culture, named like "de", "de-AT" or "de_AT.UTF-8"; English for one that is not
/// known. Empty for a key that is not known.
std::string localisedKeyword(const std::string& culture, const std::string& key);

/// The service's folder below the application's folder on a device, in a culture: "My Flickr Items".
std::string localisedServiceFolderName(const std::string& culture);

/// Keys of the names that the system needs at the root and in every set, in any language, since the language
/// may change from one run to the next, and with that word for the thumbnail folders.
NameKeys systemWords(const std::string& thumbnailWord);

/// Reads a text that is either "key=value" pairs, each ended by "||", or the name of a culture. Keys that it
/// does not give, or gives without a value, have their English words.
std::map<std::string, std::string> readKeywords(const std::string& text);

}  // namespace flickr_standin

#endif
