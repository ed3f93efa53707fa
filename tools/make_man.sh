#!/usr/bin/env bash
# Writes the ovrin-sm(1) manual page from the tool's own help texts, so that the page says what
# the tool says: the synopsis and exit statuses from `ovrin-sm --help`, a section per command from
# `ovrin-sm COMMAND --help`.
#   tools/make_man.sh TOOL VERSION > ovrin-sm.1
set -euo pipefail
tool=$1 version=$2
# roff: a leading dot or quote would be read as a request; backslashes and hyphens escaped.
esc() { sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"; }

cat <<HEAD
.TH OVRIN-SM 1 "" "ovrin-sm $version" "User Commands"
.SH NAME
ovrin-sm \\- inspect, convert and exercise the session-manager messages of libovrin_sm
.SH SYNOPSIS
.B ovrin-sm
[\\fB\\-\\-version\\fR] [\\fB\\-\\-help\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR]
.SH DESCRIPTION
HEAD
echo ".nf"
"$tool" --help | sed -n '/^commands:/,$p' | esc
echo ".fi"
echo ".SH COMMANDS"
for command in types manifest decode encode trace demo compat; do
    echo ".SS $command"
    echo ".nf"
    "$tool" "$command" --help | esc
    echo ".fi"
done
cat <<'TAIL'
.SH FILES
Libraries are read from the paths given; without one, manifest reads the libovrin_sm.so the tool
runs with.
.SH SEE ALSO
The documentation in the package's source (docs/tool.md, docs/getting-started.md).
TAIL
