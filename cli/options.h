// The tool's command lines (header only, so that the fuzz targets built from single commands need
// nothing more): GNU-style options read with getopt_long (long options, "--name=value",
// "--" ending the options, options after operands), usage errors that name the option or value at
// fault, and one shape for every command's help.
#ifndef OVRIN_CLI_OPTIONS_H
#define OVRIN_CLI_OPTIONS_H

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace ovrin::cli {

// Exit statuses of every command.
inline constexpr int exit_ok = 0;
inline constexpr int exit_failure = 1; // input that does not read, parse, decode or check; a failed run
inline constexpr int exit_usage = 2;   // a bad option, value or operand; an unknown type name

// One command's command line: the options getopt_long is given, and its help text.
struct Command {
    const char *name;            // "decode"
    const char *synopsis;        // "TYPE [FILE] [--hex] [--xml [--pretty]] [--tracked]"
    const char *help;            // what it does and each option, one per line, ending with a newline
    std::vector<option> options; // without --help, which every command has
};

// The outcome of reading one option.
enum class Next { option, done, help, error };

// Reads the command's options. Options come as getopt_long gives them (the option's val, with
// optarg); the operands are left in operands() in order once all are read.
class Parser {
public:
    Parser(const Command &c, int argc, char **argv);
    // Reads every option, giving each to on_option(val, arg), which returns -1 to go on or an exit
    // status to stop with. -1 once all are read (operands() then holds the rest), else the status:
    // on_option's, the help's or a usage error's.
    template <class OnOption> int run(OnOption &&on_option);
    // The same for a command with no option besides --help.
    int run() {
        return run([](int, const char *) { return -1; });
    }
    const std::vector<const char *> &operands() const { return operands_; }
    // The option's name as the user wrote it, for messages ("--count").
    std::string name_of(int val) const;

private:
    Next next(int &val, const char *&arg); // one option, or how reading ended
    const Command &command_;
    int argc_;
    char **argv_;
    std::string short_;
    std::vector<option> long_;
    std::vector<const char *> operands_;
};

// "ovrin-sm CMD: MESSAGE" and a pointer to the help on standard error; returns exit_usage.
int usage_error(const Command &c, const std::string &message);
// The command's help on standard output; returns exit_ok.
int show_help(const Command &c);

// Levenshtein distance, for "did you mean" answers.
size_t edit_distance(const std::string &a, const std::string &b);
// Of the candidates, the one closest to name when it is close enough to be a likely misspelling;
// empty otherwise.
std::string closest(const std::string &name, const std::vector<std::string> &candidates);
// The one way every answer to a misspelt name ends: "; did you mean X?", or nothing.
std::string did_you_mean(const std::string &name, const std::vector<std::string> &candidates);

// NAME's value as a whole number from min to max, or a usage message naming both
// ("--count: 'abc' is not a number from 1 to 1000000000").
bool number(const char *name, const char *text, long min, long max, long &out, std::string &error);

// ---- implementation

inline Parser::Parser(const Command &c, int argc, char **argv) : command_(c), argc_(argc), argv_(argv) {
    // A leading ':' makes a missing value its own answer; short forms exist for printable vals.
    short_ = ":h";
    for (const option &o : c.options) {
        long_.push_back(o);
        if (o.val > 0 && o.val < 128 && !o.flag) {
            short_ += static_cast<char>(o.val);
            if (o.has_arg == required_argument) short_ += ':';
        }
    }
    long_.push_back({"help", no_argument, nullptr, 'h'});
    long_.push_back({nullptr, 0, nullptr, 0});
    optind = 0; // start afresh (glibc's way of re-initialising getopt)
    opterr = 0;
}

inline std::string Parser::name_of(int val) const {
    for (const option &o : long_)
        if (o.name && o.val == val) return std::string("--") + o.name;
    return std::string("-") + static_cast<char>(val);
}

inline Next Parser::next(int &val, const char *&arg) {
    int c = getopt_long(argc_, argv_, short_.c_str(), long_.data(), nullptr);
    arg = optarg;
    val = c;
    if (c == -1) {
        for (int i = optind; i < argc_; ++i) operands_.push_back(argv_[i]);
        return Next::done;
    }
    if (c == 'h') return Next::help;
    if (c == ':') {
        usage_error(command_, name_of(optopt) + " needs a value");
        return Next::error;
    }
    if (c == '?') {
        std::string given = optind > 0 && optind <= argc_ ? argv_[optind - 1] : "";
        const std::string name = given.substr(0, given.find('='));
        std::vector<std::string> names, matches; // every long option, and those name is a prefix of
        for (const option &o : long_)
            if (o.name) {
                names.push_back(std::string("--") + o.name);
                if (name.size() > 2 && names.back().rfind(name, 0) == 0) matches.push_back(names.back());
            }
        if (optopt && given.rfind("--", 0) == 0 && given.find('=') != std::string::npos) {
            usage_error(command_, name + " takes no value");
        } else if (optopt && given.rfind("--", 0) != 0) {
            usage_error(command_, std::string("unknown option '-") + static_cast<char>(optopt) + "'");
        } else if (matches.size() > 1) {
            std::string list;
            for (size_t i = 0; i < matches.size(); ++i)
                list += (i == 0 ? "" : i + 1 == matches.size() ? " or " : ", ") + matches[i];
            usage_error(command_, "option '" + name + "' is ambiguous: it could be " + list);
        } else {
            usage_error(command_, "unknown option '" + name + "'" + did_you_mean(name, names));
        }
        return Next::error;
    }
    return Next::option;
}

template <class OnOption> int Parser::run(OnOption &&on_option) {
    for (;;) {
        int val;
        const char *arg;
        switch (next(val, arg)) {
        case Next::help: return show_help(command_);
        case Next::error: return exit_usage;
        case Next::done: return -1;
        case Next::option:
            if (int status = on_option(val, arg); status >= 0) return status;
        }
    }
}

inline int usage_error(const Command &c, const std::string &message) {
    std::fprintf(stderr, "ovrin-sm %s: %s\nusage: ovrin-sm %s %s\nTry 'ovrin-sm %s --help' for more.\n", c.name, message.c_str(),
                 c.name, c.synopsis, c.name);
    return exit_usage;
}

inline int show_help(const Command &c) {
    std::printf("usage: ovrin-sm %s %s\n\n%s", c.name, c.synopsis, c.help);
    std::printf("  -h, --help            show this text\n");
    return exit_ok;
}

inline size_t edit_distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

inline std::string closest(const std::string &name, const std::vector<std::string> &candidates) {
    std::string best;
    size_t best_distance = std::max<size_t>(2, name.size() / 3) + 1;
    for (const std::string &c : candidates) {
        // The distance is at least the difference in length: a name far longer or shorter than
        // a candidate is not measured against it (a hostile name costs nothing per candidate).
        size_t longer = std::max(name.size(), c.size()), shorter = std::min(name.size(), c.size());
        if (longer - shorter >= best_distance) continue;
        size_t d = edit_distance(name, c);
        if (d < best_distance) best_distance = d, best = c;
    }
    return best;
}

inline std::string did_you_mean(const std::string &name, const std::vector<std::string> &candidates) {
    std::string best = closest(name, candidates);
    return best.empty() ? std::string() : "; did you mean " + best + "?";
}

inline bool number(const char *name, const char *text, long min, long max, long &out, std::string &error) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (!*text || *end || errno == ERANGE || v < min || v > max) {
        error = std::string(name) + ": '" + text + "' is not a number from " + std::to_string(min) + " to " + std::to_string(max);
        return false;
    }
    out = v;
    return true;
}

} // namespace ovrin::cli

// ---- option tables

namespace ovrin::cli {

// The entries of Command::options, one a call: flag("hex", opt_hex) takes no value,
// valued("count", opt_count) takes one.
inline option flag(const char *name, int val) { return {name, no_argument, nullptr, val}; }
inline option valued(const char *name, int val) { return {name, required_argument, nullptr, val}; }

} // namespace ovrin::cli

#endif
