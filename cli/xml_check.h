// The strict reading of encode: a document is checked against its type, from the type tables,
// before the library reads it. The library's reader is lenient by design (an unknown element is
// never looked at, an unknown literal reads as the first one, the first of duplicates wins, a
// length is recomputed from its text); this check turns each of those into an error naming the
// path, so that what is encoded is what the document says.
#ifndef OVRIN_CLI_XML_CHECK_H
#define OVRIN_CLI_XML_CHECK_H

#include <string>
#include <vector>

#include "ovrin_sm_internal/tables.h"

namespace ovrin::cli {

// The root element name of a document the runtime's reader made (mgx_xml_document_read), or ""
// when it has none.
std::string root_name(const void *doc);

// What is wrong with a document as a document of type t: the first problems, one "PATH: what is
// wrong" line each in document order, and how many there are in all (none: the document holds a
// t as written); beside each kept problem, the line of the document it is on (0: not known).
struct Findings {
    std::vector<std::string> problems;
    size_t count = 0;
    std::vector<long> lines;
};

// The findings of such a document, keeping the first `keep` problems' lines (a closest name is
// offered in the first 100 only). The document is read as it stands: entities are not expanded
// (a value that refers to one is left to the library's reader, which refuses it).
Findings check_document(const Type &t, const void *doc, size_t keep);

} // namespace ovrin::cli

#endif
