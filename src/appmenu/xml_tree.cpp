#include "appmenu/xml_tree.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cstdint>

namespace qel {
namespace {

constexpr std::size_t kMaxText = std::size_t{1} << 20;
constexpr std::int64_t kNodeTime = 20;  // estimated nanoseconds
constexpr std::int64_t kElementTime = 500;
constexpr int kMaxTextDepth = 300;  // nesting of elements and entities in the text of an element

// Collects the text of an element like xmlNodeGetContent(), but with a limit: a few lines of nested entities are enough
// to make xmlNodeGetContent() use up the memory.
class TextCollector {
 public:
  explicit TextCollector(const xmlNode* element)
      : element_(element),
        budget_(element->doc != nullptr ? static_cast<LoadBudget*>(element->doc->_private) : nullptr) {}

  // Adds the text of a node and its following siblings. Returns false when a limit is exceeded.
  bool Add(const xmlNode* first, int depth) {
    for (const xmlNode* node = first; node != nullptr; node = node->next) {
      if (depth > kMaxTextDepth || !Take(1) || !AddNode(node, depth)) {
        return false;
      }
    }
    return true;
  }

  std::string TakeText() { return std::move(text_); }

 private:
  bool AddNode(const xmlNode* node, int depth) {
    switch (node->type) {
      case XML_TEXT_NODE:
      case XML_CDATA_SECTION_NODE: {
        const std::string_view content = reinterpret_cast<const char*>(node->content);
        if (content.size() > kMaxText - text_.size() || !Take(content.size())) {
          return false;
        }
        text_ += content;
        return true;
      }
      case XML_ELEMENT_NODE:
        return Add(node->children, depth + 1);
      case XML_ENTITY_REF_NODE: {
        const xmlEntity* entity = xmlGetDocEntity(node->doc, node->name);
        ++entities_;
        const bool added = entity == nullptr || Add(entity->children, depth + 1);
        --entities_;
        return added;
      }
      default:
        return true;
    }
  }

  // Only text from entities counts: the text of the file itself is limited by the size of the file.
  bool Take(std::size_t amount) {
    const std::string_view where = reinterpret_cast<const char*>(element_->name);
    return entities_ == 0 || budget_ == nullptr ||
           (budget_->Spend(kNodeTime, where) && budget_->TakeBytes(amount, where));
  }

  const xmlNode* const element_;
  LoadBudget* const budget_;  // null: the element is in no document
  int entities_ = 0;          // number of entities that are being expanded
  std::string text_;
};

const xmlChar* XmlText(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

void IgnoreError(void* /*context*/, xmlError* /*error*/) {}

void BeginElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int namespaces,
                  const xmlChar** namespace_list, int attributes, int defaulted, const xmlChar** attribute_list) {
  auto* parser = static_cast<xmlParserCtxt*>(context);
  auto* budget = static_cast<LoadBudget*>(parser->_private);
  const std::string_view where = reinterpret_cast<const char*>(name);
  if (!budget->Spend(kElementTime, where) || !budget->TakeNodes(1, where)) {
    parser->recovery = 1;  // makes the parser return the incomplete document
    xmlStopParser(parser);
    return;
  }
  xmlSAX2StartElementNs(context, name, prefix, uri, namespaces, namespace_list, attributes, defaulted, attribute_list);
}

}  // namespace

XmlDocument ParseXml(std::string_view text, const std::string& path, LoadBudget& budget) {
  const Owner<xmlParserCtxt, xmlFreeParserCtxt> parser(xmlNewParserCtxt());
  if (parser == nullptr || parser->sax == nullptr) {
    return nullptr;
  }
  parser->_private = &budget;
  parser->sax->serror = IgnoreError;  // for this parser only; the default prints to standard error
  parser->sax->comment = nullptr;
  parser->sax->startElementNs = BeginElement;
  XmlDocument document(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), path.c_str(),
                                         /*encoding=*/nullptr, /*options=*/0));
  if (document != nullptr) {
    document->_private = &budget;
  }
  return document;
}

xmlNode* FindElement(xmlNode* node, const char* name) {
  while (node != nullptr && !IsElement(node, name)) {
    node = node->next;
  }
  return node;
}

std::string ElementText(const xmlNode* element) {
  std::string text;
  return std::string(ElementText(element, text));
}

std::string_view ElementText(const xmlNode* element, std::string& text) {
  const xmlNode* only = element->children;
  if (only != nullptr && only->next == nullptr && only->type == XML_TEXT_NODE) {
    return reinterpret_cast<const char*>(only->content);
  }
  TextCollector collector(element);
  text = collector.Add(only, 0) ? collector.TakeText() : std::string();
  return text;
}

xmlNode* NewElement(const char* name, const std::string& text) {
  xmlNode* element = xmlNewNode(nullptr, reinterpret_cast<const xmlChar*>(name));
  xmlAddChild(element, xmlNewText(XmlText(text)));
  return element;
}

void RemoveNode(xmlNode* node) {
  xmlUnlinkNode(node);
  xmlFreeNode(node);
}

}  // namespace qel
