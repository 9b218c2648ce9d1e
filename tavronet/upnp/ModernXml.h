#ifndef TAVRONET_UPNP_MODERNXML_H
#define TAVRONET_UPNP_MODERNXML_H

#include <string>
#include <string_view>

#include <pugixml.hpp>

#include "tavronet/platform/String.h"

/// XML as devices write it: loaded whatever its faults, compared by local names in lower case.
namespace tavronet
{

/// Elements deeper than this are left out by whoever walks a document recursively.
inline constexpr int kMaxXmlDepth = 128;

/// Loads a document. What is not well-formed is repaired: missing and crossing end tags, stray characters, text in
/// front and behind, bytes of another encoding than UTF-8. No DTD is read and no entity but the five of XML itself.
/// @return false when there is no element in it, or more than kMaxXmlTags tags and attributes.
bool LoadXml(std::string_view text, pugi::xml_document& document);

/// The element's name without its prefix, in lower case; empty for anything else.
std::string LocalName(const pugi::xml_node& node);

/// The element's own text, trimmed; empty when it is longer than kMaxElementTextBytes.
CString TextOf(const pugi::xml_node& element);

/// The next node in document order, null at the end.
pugi::xml_node NextNode(pugi::xml_node node);

} // namespace tavronet

#endif
