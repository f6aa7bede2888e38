// Answers as the plug-in reads them: the service's XML, cut down to what it looks at.
//
// Titles and descriptions of sets with characters of XML in them are sent as CDATA: the plug-in keeps the
// last piece in which they reach it, and a reference such as "&amp;" would split them. A library's writer
// leaves no such choice.

#ifndef GATEWAY_PLUGINXML_H
#define GATEWAY_PLUGINXML_H

#include <string>
#include <vector>

#include "gateway/RenditionStore.h"
#include "gateway/ServiceAnswer.h"

namespace flickr_gateway {

std::string setListXml(const std::vector<ListedSet>& sets);

/// The items of a page of a set, or of the items in no set.
std::string pageXml(const std::vector<ListedItem>& items, bool inSet);

/// An item's two renditions, with the addresses under which the gateway has them; a rendition without an
/// address is left out.
std::string sizesXml(const ItemRenditions& renditions, bool isVideo);

std::string failureXml(int code, const std::string& message);

}  // namespace flickr_gateway

#endif
