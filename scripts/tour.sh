# What the tours of ./run share. Sourced.

. scripts/watch.sh

build=build/release

title() { printf '\n== %s\n' "$*"; }

# Prints a command as a person would type it: say_command PROMPT WORD...
say_command() {
    local word line=$1
    shift
    for word in "$@"; do
        [[ $word =~ ^[A-Za-z0-9_./:=@,+-]+$ ]] || word="'$word'"
        line+=" $word"
    done
    echo "$line"
}

build_programs() {
    title "Build"
    install_packages "$@"
    [ -f "$build/CMakeCache.txt" ] || cmake --preset release -DNASCTRL_TESTS=OFF >/dev/null
    cmake --build --preset release --parallel --target nasctrl nasctrld nasctl nasstored
}

# The number of a node's newest event; 0 = none yet: newest_event ROOT
newest_event() { "$build/ctl/nasctl" --root "$1" events | tail -n 1 | awk '{ print $1 } END { if (NR == 0) print 0 }'; }
# What a node was told of one LS after an event, a MODULE EVENT a line: events_of ROOT AFTER LS
events_of() {
    "$build/ctl/nasctl" --root "$1" events --after "$2" | awk -v ls="$3" '$6 == ls { print $4, $5 }'
}
# Whether these events came, each once and in this order; others may stand between them: came ROOT AFTER LS EVENT...
came() {
    local root=$1 after=$2 ls=$3 wanted
    shift 3
    wanted=$(printf '%s\n' "$@")
    [ "$(events_of "$root" "$after" "$ls" | grep -Fx -e "$wanted")" = "$wanted" ]
}
