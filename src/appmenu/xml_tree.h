// Parses menu definition files into libxml2 trees, and a few functions for their elements.
#pragma once

#include <libxml/tree.h>

#include <cstring>
#include <string>
#include <string_view>

#include "appmenu/load_budget.h"
#include "base/owner.h"

namespace qel {

using XmlDocument = Owner<xmlDoc, xmlFreeDoc>;

// Parses an XML text that was read from the file `path`. Returns null when the text is not well-formed, or exceeds
// libxml2's limits for nesting and entities; nothing is printed. No other file is read, even if the text refers to one.
//
// The budget must outlive the document. Each element uses one node of it. When no nodes are left, the document contains
// only the elements that were read until then. See also ElementText().
XmlDocument ParseXml(std::string_view text, const std::string& path, LoadBudget& budget);

inline bool IsElement(const xmlNode* node, const char* name) {
  if (node->type != XML_ELEMENT_NODE) {
    return false;
  }
  const char* const own_name = reinterpret_cast<const char*>(node->name);
  return own_name[0] == name[0] && std::strcmp(own_name, name) == 0;  // most differ in the first character
}

// The first element of this name among a node and its following siblings; null when there is none.
xmlNode* FindElement(xmlNode* node, const char* name);

// The whole text of an element and its descendants, not trimmed. When the text is in several parts, it counts as empty
// if it has more than 1 MiB, or if its entities need more than the budget of the document.
std::string ElementText(const xmlNode* element);

// The same without a copy where possible: the result refers to the document when the text is in one part, which is the
// usual case, and else to `text`.
std::string_view ElementText(const xmlNode* element, std::string& text);

// Creates an element with a text. The caller owns it until it is inserted into a document.
xmlNode* NewElement(const char* name, const std::string& text);

// Removes a node from its tree and frees it with its descendants.
void RemoveNode(xmlNode* node);

}  // namespace qel
