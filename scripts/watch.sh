# What tours and tests of running nodes share. Sourced.

# Waits until a command succeeds, half a minute at most.
eventually() {
    local attempt
    for attempt in $(seq 300); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

# What answers at address and port; empty when nothing does.
greeting() { (exec 3<>"/dev/tcp/$1/$2" && read -r line <&3 && echo "$line") 2>/dev/null || true; }
