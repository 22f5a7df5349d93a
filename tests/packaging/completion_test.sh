#!/usr/bin/env bash
# Completes each command and option of the programs and compares with their --help.
# Usage: completion_test.sh COMPLETION NASCTL NASCTRLD NASSTORED HOSTCHECK
set -euo pipefail
# shellcheck disable=SC1090
. "$1"
nasctl=$2 nasctrld=$3 nasstored=$4 hostcheck=$5
findings=0

# complete_line WORD...: the candidates for the last word, one a line.
complete_line() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _nasctrl_complete "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort
}
# expect WANTED WORD...: the wanted candidates, one a line.
expect() {
    local wanted=$1 found
    shift
    found=$(complete_line "$@")
    if [ "$found" != "$(sort -u <<<"$wanted")" ]; then
        printf '%s: completes to\n%s\ninstead of\n%s\n' "${*@Q}" "$found" "$wanted"
        findings=1
    fi
}
# Names from help texts, read another way than the completion does.
options() { grep -oE '^  (-[a-z],)?--?[a-z][a-z-]*' | tr -d ' ' | tr , '\n'; }
subcommands() { sed -n '/^Subcommands:$/,/^$/s/^  \([^ ]*\).*/\1/p'; }

expect_tree() {
    local help names name
    help=$("$@" --help)
    names=$(subcommands <<<"$help")
    expect "$names" "$@" ""
    expect "$({ "$1" --help && echo "$help"; } | options)" "$@" -
    for name in $names; do
        expect "$name" "$@" "$name"
        expect_tree "$@" "$name"
    done
}
expect_tree "$nasctl"
expect_tree "$nasctrld"
expect_tree "$nasstored"
expect_tree "$hostcheck"

# Every program has it, and the one that takes a file leaves that to the shell.
for program in "$nasctl" "$nasctrld" "$nasstored" "$hostcheck"; do
    complete -p "$(basename "$program")" >/dev/null || findings=1
done
[[ $(complete -p nasctrl-hostcheck) == *"-o default "* ]] || { echo "nasctrl-hostcheck completes no file"; findings=1; }

# An option's value is none of the commands, and is not taken for one.
expect "" "$nasctl" --timeout-ms ""
expect "monitor" "$nasctl" --timeout-ms ip ip mon
expect "explain" "$nasctl" --root = /tmp ip ex
expect "" "$nasctl" nonsense x

# Files and directories where the option takes one.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/directory"
touch "$work/file"
expect "$work/directory"$'\n'"$work/file" "$nasctrld" --config "$work/"
expect "$work/directory" "$nasctrld" --root "$work/"
expect "$work/file" "$nasctrld" --log-file = "$work/f"
exit "$findings"
