// Reading the tool's input files: messages for decode and encode, trace files, library files.
// Every read is bounded, and a failure comes back as one line that says what and where
// ("cannot read /tmp: Is a directory") for the command to print after "ovrin-sm: ".
#ifndef OVRIN_CLI_INPUT_H
#define OVRIN_CLI_INPUT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "formats/elf_file.h"

namespace ovrin::input {

// A message to decode or encode (wire bytes, hex text or an XML document): far above any message
// of the catalogue, and small enough that a wrong input is refused quickly.
inline constexpr size_t message_limit = size_t{64} << 20;

// A trace file, or a library file: the limit the runtime's ELF reader applies.
inline constexpr size_t file_limit = static_cast<size_t>(mgx::elf::file_limit);

// Reads the whole of path, or standard input for "-", into out; what names the limit in the
// message when the input exceeds it ("the input limit"). Regular files are checked against limit
// by their size before they are read; pipes, FIFOs and standard input are read up to limit and
// refused beyond it; directories and devices are refused.
bool read(const std::string &path, size_t limit, const char *what, std::vector<uint8_t> &out, std::string &error);

// Reads a library file (a regular file within file_limit, or standard input for "-") and finds
// its sections.
std::optional<mgx::elf::File> read_library(const std::string &path, std::string &error);

} // namespace ovrin::input

#endif
