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
// the whole text) begins in text, as a byte offset; no_place when the text does not hold it. Of a
// member given more than once, the first is found, or with repeat the second (where it repeats).
size_t json_value_at(std::string_view text, std::string_view pointer, bool repeat = false);

// Where text first stops being JSON: with utf8, its first byte that is not valid UTF-8 (when the
// reader's complaint is about the encoding); else, or when there is none, the first byte the
// grammar does not allow there (the end, for a text cut short) or the bracket that opens deeper
// than max_depth. no_place for a text that is JSON.
size_t json_fault_at(std::string_view text, size_t max_depth, bool utf8);

// "L:C" of a byte offset: lines from 1, columns from 1 in characters (as editors count them).
std::string line_column(std::string_view text, size_t offset);

// The last token of a pointer, unescaped ("/a/b~1c" gives "b/c").
std::string last_token(std::string_view pointer);

} // namespace ovrin::cli

#endif
