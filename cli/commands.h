// The ovrin-sm subcommands. Each takes the arguments after the tool's name (argv[0] is the
// subcommand itself) and returns the process exit status.
#ifndef OVRIN_CLI_COMMANDS_H
#define OVRIN_CLI_COMMANDS_H

// ovrin-sm types: the bundle's types as the loaded library describes them.
int ovrin_cmd_types(int argc, char **argv);

// ovrin-sm manifest [LIBRARY]: the manifest section of a library file.
int ovrin_cmd_manifest(int argc, char **argv);

// ovrin-sm decode TYPE [FILE] [--hex] [--xml|--json] [--tracked]: wire bytes to the print form,
// XML or JSON.
int ovrin_cmd_decode(int argc, char **argv);

// ovrin-sm encode TYPE [FILE] [--json] [--hex] [--tracked]: an XML or JSON document to wire bytes.
int ovrin_cmd_encode(int argc, char **argv);

// ovrin-sm trace FILE [--library LIBRARY]: a binary trace file decoded to timestamped lines with
// the texts read from the non-loaded section of the library that wrote it.
int ovrin_cmd_trace(int argc, char **argv);

// ovrin-sm demo [--xml|--hex|--quiet] [--count N] [--corrupt FRAME] [--trace FILE]: a client and a session
// manager in two processes exchanging one session's messages (or N sessions), each checked on
// arrival; 0 when every message arrived intact and no allocation was left behind.
int ovrin_cmd_demo(int argc, char **argv);

// ovrin-sm compat OLD NEW: the changes between two catalogue files, each compatible with peers of
// the other or breaking them; 1 when any breaks.
int ovrin_cmd_compat(int argc, char **argv);

#endif
