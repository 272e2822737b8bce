#!/usr/bin/env bash
# A word that scripts/test does not know is refused before anything is installed or built.
set -euo pipefail

fail() {
  echo "$*" >&2
  exit 1
}

# Without the programs that would install or build, should it go on.
tools=$(mktemp -d)
trap 'rm -rf "$tools"' EXIT
for tool in bash dirname; do ln -s "$(command -v "$tool")" "$tools/$tool"; done

# Runs it with these words; its exit status and what it prints.
try() {
  status=0
  text=$(PATH=$tools bash "$KESTREL_SOURCE_ROOT/scripts/test" "$@" 2>&1) || status=$?
}

for words in relase "release asn" "asan Socket"; do
  # shellcheck disable=SC2086 # the words of one command line
  try $words
  ((status == 2)) || fail "$words: exit status $status: $text"
  [[ $text == "scripts/test: '${words##* }' is no build: expected is release, asan or tsan"*"usage: scripts/test "* ]] ||
    fail "$words: $text"
done
try ""
((status == 2)) || fail "an empty word: exit status $status: $text"
for word in --help -h; do
  try "$word"
  ((status == 0)) || fail "$word: exit status $status: $text"
  [[ $text == "usage: scripts/test "*"minutes"* ]] || fail "$word: $text"
done
# What goes to ctest is no build, and is not refused.
try release -R Socket
[[ $text != *usage:* ]] || fail "release -R Socket: $text"
