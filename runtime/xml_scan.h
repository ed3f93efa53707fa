// What a document may cost the parser, counted before libxml2 sees it.
#ifndef MGX_RUNTIME_XML_SCAN_H
#define MGX_RUNTIME_XML_SCAN_H

#include <cstddef>
#include <string>

namespace mgx {

// Scans text once for the reader's limits: attributes on one element, nodes (elements, CDATA
// sections, entity references and declarations), the depth of nested elements and the distinct
// names of elements, attributes and entities. Answers "" when the document is within them, else
// why not ("line L: ..."). Throws std::bad_alloc when memory runs out.
std::string xml_over_limits(const char *text, size_t n);

} // namespace mgx

#endif
