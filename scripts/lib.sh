# Shared by the scripts of this directory; sourced, not run. Enters the root of the source tree.
# shellcheck shell=bash

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

# The calling script's head comment is its help text.
help_if_asked() {
    case " $* " in
        *" --help "* | *" -h "*)
            sed -n '2,/^[^#]/{/^#/!d;s/^# \{0,1\}//;p;}' "$0"
            exit 0
            ;;
    esac
}

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

jobs_count() { nproc 2>/dev/null || echo 2; }

# Runs a command with its output kept back; shows it all when the command fails.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [ "$status" -ne 0 ]; then
        cat "$log"
        printf '%s: failed with status %d: %s\n' "$(basename "$0")" "$status" "$*" >&2
    fi
    rm -f "$log"
    return "$status"
}

# build_preset PRESET [TARGET...]: configures and builds, all targets when none is named.
build_preset() {
    local preset=$1
    shift
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset" --parallel "$(jobs_count)" ${1:+--target "$@"}
}

# Every file of the project, tracked or about to be; works in an unpacked archive as well.
project_files() {
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files --cached --others --exclude-standard -- "$@" | while read -r file; do
            [ ! -f "$file" ] || printf '%s\n' "$file"
        done
    else
        local pattern found=()
        for pattern in "$@"; do found+=(-o -path "./$pattern"); done
        find . -path ./build -prune -o -type f \( "${found[@]:1}" \) -print | sed 's|^\./||'
    fi
}

cxx_files() { project_files '*.c' '*.cpp' '*.h' '*.hpp'; }
