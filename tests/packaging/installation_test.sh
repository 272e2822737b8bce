#!/usr/bin/env bash
# What configuring and installing tell whoever does it.
set -euo pipefail

fail() {
  echo "$*" >&2
  exit 1
}
has() { [[ $1 == *"$2"* ]] || fail "expected '$2' in: $1"; }

# CMake breaks the lines of its messages.
in_one_line() { tr -s ' \n' ' '; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
configure() {
  "$KESTREL_CMAKE" -S "$KESTREL_SOURCE_ROOT" -B "$scratch/build" -DKESTREL_BUILD_TESTS=OFF \
    -DCMAKE_INSTALL_PREFIX="$scratch/prefix" "$@" 2>&1 | in_one_line
}

# Names of files are put right behind the directories.
text=$(configure -DKESTREL_CONFIG_PARENT_DIR="$scratch/conf" -DKESTREL_LOG_PARENT_DIR="$scratch/logs")
has "$text" "KESTREL_CONFIG_PARENT_DIR has no closing slash"
has "$text" "expected is \"$scratch/conf/\""
has "$text" "KESTREL_LOG_PARENT_DIR has no closing slash"
text=$(configure -DKESTREL_CONFIG_PARENT_DIR="$scratch/conf/" -DKESTREL_LOG_PARENT_DIR="$scratch/logs/")
[[ $text != *slash* ]] || fail "$text"

# Without a word about them the directories are the documented ones.
default=$scratch/default
"$KESTREL_CMAKE" -S "$KESTREL_SOURCE_ROOT" -B "$default" -DKESTREL_BUILD_TESTS=OFF >/dev/null
"$KESTREL_CMAKE" --build "$default" --target kestrel_directories >/dev/null
cat >"$scratch/directories.cpp" <<'EOF'
#include <cstdio>
extern char KESTREL_CONFIG_PARENT_DIR[260];
extern char KESTREL_LOG_PARENT_DIR[260];
int main() { std::printf("%s %s", KESTREL_CONFIG_PARENT_DIR, KESTREL_LOG_PARENT_DIR); }
EOF
"$CXX" "$scratch/directories.cpp" "$default/src/service/libkestrel_directories.a" -o "$scratch/directories"
directories=$("$scratch/directories")
[[ $directories == "/opt/vellumtv/hub/conf/verifier/ /usr/local/ormondtv/kestrel/logs/" ]] || fail "$directories"

# The profile is told of, the new one and the one that is kept.
install_profile() { "$KESTREL_CMAKE" --install "$scratch/build" --component profile 2>&1; }
profile=$scratch/conf/KestrelManagerProfile.xml
has "$(install_profile)" "Installing: $profile"
[[ -d $scratch/logs ]] || fail "no directory for the logs"
grep -q "$scratch/prefix/bin/kestrelCapture" "$profile" || fail "the profile does not name the installed worker"
echo '<Own/>' >"$profile"
has "$(install_profile)" "Kept: $profile (a new one is among the examples, in $scratch/prefix/share/doc/"
has "$("$KESTREL_CMAKE" --install "$scratch/build" --component profile --prefix "$scratch/other" 2>&1)" \
  "in $scratch/other/share/doc/"
has "$(DESTDIR=$scratch/stage install_profile)" "Installing: $scratch/stage$profile"
has "$(DESTDIR=$scratch/stage install_profile)" "in $scratch/stage$scratch/prefix/share/doc/"
configure -DCMAKE_INSTALL_DOCDIR="$scratch/doc" >/dev/null
has "$(install_profile)" "in $scratch/doc/examples)"
[[ $(<"$profile") == '<Own/>' ]] || fail "the operator's profile has been replaced"
