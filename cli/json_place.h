// Places in a JSON text, for encode's messages: the library's reader names what it refuses by a
// JSON pointer, and a person editing the file wants its line and column too.
#ifndef OVRIN_CLI_JSON_PLACE_H
#define OVRIN_CLI_JSON_PLACE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ovrin::cli {

inline constexpr size_t no_place = std::string_view::npos;

// Where the value that pointer names (RFC 6901: "/cl_name/client_name", "/resp_array/0", "" for
// the whole text) begins in text, as a byte offset; no_place when the text does not hold it.
size_t json_value_at(std::string_view text, std::string_view pointer);

// "L:C" of a byte offset: lines from 1, columns from 1 in characters (as editors count them).
std::string line_column(std::string_view text, size_t offset);

// The last token of a pointer, unescaped ("/a/b~1c" gives "b/c").
std::string last_token(std::string_view pointer);

} // namespace ovrin::cli

#endif
