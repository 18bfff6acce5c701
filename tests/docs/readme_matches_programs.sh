#!/usr/bin/env bash
# The README tells a new user what works and how to call it: every option and key it names must
# be one the agent's --help lists, every path it names must exist, and a claim that something
# unbuilt is announced at run time must be backed by such an announcement in the programs.
#
#   tests/docs/readme_matches_programs.sh SOURCE_DIR BUILD_DIR
set -uo pipefail
source_dir=${1:?source folder}
build_dir=${2:?build folder}
readme=$source_dir/README.md
agent=$build_dir/apps/morvanecloud/morvanecloud
failures=0
fail() { printf 'README: %s\n' "$*" >&2; failures=$((failures + 1)); }

help=$(QT_QPA_PLATFORM=offscreen "$agent" --help 2>&1) || { echo "morvanecloud --help failed" >&2; exit 1; }

# Options of the agent: "morvanecloud --x" anywhere in the README.
for option in $(grep -o 'morvanecloud --[a-z-]*' "$readme" | sed 's/^morvanecloud //' | sort -u); do
    grep -q -- "$option" <<<"$help" || fail "names the option $option, which --help does not list"
done

# Install keys: KEY=value in backticks or in a sudo line.
for key in $(grep -o '\b[A-Z][A-Z_]*[A-Z]=' "$readme" | tr -d '=' | sort -u); do
    grep -q "\b$key=" <<<"$help" || fail "names the key $key, which --help does not list"
done

# Paths of the repository in backticks.
for path in $(grep -o '`\(src\|tests\|tools\|data\|debian\|scripts\|apps\|bench\|fuzz\)/[^` ]*`' "$readme" \
        | tr -d '`' | sort -u); do
    [ -e "$source_dir/$path" ] || fail "names $path, which does not exist"
done

# Unbuilt parts said to announce themselves must do so somewhere in the programs' code.
if grep -qi 'said so at run time\|announced at run time' "$readme" \
        && ! grep -rqi 'not built yet\|is not built' "$source_dir/src" "$source_dir/apps"; then
    fail "says unbuilt parts are announced at run time, and no program announces any"
fi

[ $failures -eq 0 ] && echo "README matches the programs" || exit 1
