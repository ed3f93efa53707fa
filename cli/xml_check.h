// The strict reading of encode: a document is checked against its type, from the type tables,
// before the library reads it. The library's reader is lenient by design (an unknown element is
// never looked at, an unknown literal reads as the first one, the first of duplicates wins, a
// length is recomputed from its text); this check turns each of those into an error naming the
// path, so that what is encoded is what the document says.
#ifndef OVRIN_CLI_XML_CHECK_H
#define OVRIN_CLI_XML_CHECK_H

#include <cstddef>
#include <string>
#include <vector>

#include "ovrin_sm_internal/tables.h"

namespace ovrin::cli {

// The document's root element name, or "" when the text does not parse (the caller has already
// had the runtime's reader say why).
std::string root_name(const char *text, size_t length);

// The problems of a well-formed document as a document of type t, one "PATH: what is wrong" line
// each, in document order; empty when there are none.
std::vector<std::string> check_document(const Type &t, const char *text, size_t length);

} // namespace ovrin::cli

#endif
