// Reading menu definition files into libxml2 trees, and the little that is asked of their elements.
#pragma once

#include <libxml/tree.h>

#include <cstring>
#include <string>
#include <string_view>

#include "appmenu/load_budget.h"
#include "base/owner.h"

namespace qel {

using XmlDocument = Owner<xmlDoc, xmlFreeDoc>;

// Parses an XML text. `path` is what the text was read from. Nothing when it is not well-formed, or nested deeper or
// expanding further than libxml2 accepts; nothing is printed then. No other file is read, whatever the text refers to.
//
// The budget must outlive the document. Each element takes a node of it; once there are none left, the document ends
// with those that were read. See also ElementText().
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

// The whole text below an element, not trimmed. Text that entities blow up counts as empty when it has more than a
// mebibyte, or when all that entities bring takes more than the document's budget.
std::string ElementText(const xmlNode* element);

// The same. Where it stands in one piece, as most texts do, the result is that piece; else it is in `text`.
std::string_view ElementText(const xmlNode* element, std::string& text);

// A new element that holds a text, to be put into a document.
xmlNode* NewElement(const char* name, const std::string& text);

// Takes a node out of its tree and frees it with all below it.
void RemoveNode(xmlNode* node);

}  // namespace qel
