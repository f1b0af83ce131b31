#!/bin/sh
# Writes a help2man include file with a COMMANDS section: every command that `zelt-modbus --help` lists, with the
# text and the options of its own `zelt-modbus COMMAND --help`, so that the manual page shows what no single
# --help does.
#
# Usage: commands_section.sh OUTPUT PROGRAM [ARGUMENT...]
#   PROGRAM [ARGUMENT...] runs zelt-modbus (under an emulator in a cross build).
set -eu

output=$1
shift

# roff: backslashes and dashes literal (lines that start with a request character are guarded in the awk below).
escape() {
    sed -e 's/\\/\\e/g' -e 's/-/\\-/g'
}

commands=$("$@" --help | sed -n '/^Commands:$/,/^$/s/^  \([a-z][a-z0-9-]*\) .*/\1/p')
if [ -z "$commands" ]; then
    echo "commands_section.sh: no commands in the --help of $*" >&2
    exit 1
fi

{
    printf '[COMMANDS]\n'
    printf 'Every command also takes \\fB\\-\\-help\\fR and \\fB\\-\\-version\\fR.\n'
    for command in $commands; do
        help=$("$@" "$command" --help)
        printf '.SS "%s"\n' "$command"
        # Usage line, then the summary up to the blank line, then "Options:" and one option a line
        # ("  --name VALUE   text"); a line indented deeper continues the text of the option above.
        printf '%s\n' "$help" | escape | awk '
            function emit(line) {
                if (line ~ /^[.\047]/) line = "\\&" line
                print line
            }
            NR == 1 && sub(/^Usage: /, "") {
                n = split($0, words, " ")
                line = "\\fB" words[1] " " words[2] "\\fR"
                for (i = 3; i <= n; ++i) line = line " " words[i]
                print line
                print ".PP"
                next
            }
            /^Options:$/ { options = 1; next }
            !options { if ($0 != "") emit($0); next }
            /^  \\-\\-/ {
                sub(/^  /, "")
                split($0, parts, /  +/)
                left = parts[1]
                text = substr($0, length(left) + 1)
                sub(/^ +/, "", text)
                space = index(left, " ")
                if (space) left = "\\fB" substr(left, 1, space - 1) "\\fR \\fI" substr(left, space + 1) "\\fR"
                else left = "\\fB" left "\\fR"
                print ".TP"
                print left
                emit(text)
                next
            }
            /^   +[^ ]/ { sub(/^ +/, ""); emit($0); next }
        '
    done
} >"$output.tmp"
mv "$output.tmp" "$output"
