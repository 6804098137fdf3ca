#!/usr/bin/env bash
# Checks the dynamic symbols of the engine and the support library against
# the tables of docs/conformance.md, which are the one list of what we
# export: a name that either library exports without a row, or a row for a
# name it does not export, fails here, so the document cannot drift from the
# libraries. Each row is "| `Name` | `path` | tests |" under a "## `lib.so`"
# heading; the path must exist and contain the name, and every test the row
# names (`Suite.Case`, or `Suite.*` for a whole suite) must be a case of a
# built test source or a test registered with add_test. A row with no test
# says "none". Besides, the transport's functions (those of
# include/arbor/transport.h) must be imported by the engine and defined by
# neither library, so that a host links the transport of its choice; and no
# C++ name of our own may be exported.
# Usage: check_exports.sh <source dir> <libarbor.so> <libarbor-support.so>
# Prints one line per fault and exits 1 if there is any.
set -euo pipefail
src=$1 engine=$2 support=$3
# The tables are headed by the library's link name, libNAME.so, whatever
# version its file carries.
link_name() { local name; name=$(basename "$1"); echo "${name%%.so*}.so"; }
doc=$src/docs/conformance.md
status=0
fail() { echo "$*"; status=1; }

# --- the tables: one "lib<TAB>name<TAB>path<TAB>line<TAB>tests" per row
# (tests last: read would merge the tabs around an empty field), or
# "BAD<TAB>line<TAB>why" for a table line that is not a row of that shape.
rows=$(awk '
  /^## / {
    lib = ""
    if (match($0, /`[^`]+\.so`/)) lib = substr($0, RSTART + 1, RLENGTH - 2)
    next
  }
  /^\|/ {
    if ($0 ~ /^\|[-| ]*$/ || $0 ~ /^\| *Name *\|/) next
    n = split($0, col, "|")
    for (i = 2; i <= 4; i++) { gsub(/^ +| +$/, "", col[i]) }
    if (n != 5 || col[5] !~ /^ *$/) { printf "BAD\t%d\tnot three columns\n", NR; next }
    if (lib == "") { printf "BAD\t%d\trow outside a library section\n", NR; next }
    if (col[2] !~ /^`[A-Za-z_][A-Za-z0-9_]*`$/ || col[3] !~ /^`[^`]+`$/) {
      printf "BAD\t%d\tname or path not in backquotes\n", NR; next
    }
    printf "%s\t%s\t%s\t%d\t%s\n", lib, substr(col[2], 2, length(col[2]) - 2),
           substr(col[3], 2, length(col[3]) - 2), NR, col[4]
  }' "$doc")
while IFS=$'\t' read -r tag line why; do
  if [ "$tag" = BAD ]; then fail "conformance.md:$line: $why"; fi
done <<<"$rows"
rows=$(grep -v '^BAD' <<<"$rows" || true)
documented=$(cut -f2 <<<"$rows" | sort)
dups=$(uniq -d <<<"$documented")
[ -z "$dups" ] || fail "more than one row for:" $dups

# --- each library against its own section
# Not ours: what the linker adds, what the sanitizers add (ASan gives each
# exported variable an "__odr_asan.<name>" companion), and the standard
# library's weak functions and inline variables with their guards (std::...,
# __gnu_cxx::...).
not_ours='^(_init|_fini|__bss_start|_edata|_end)$|^__(odr_asan|asan_|tsan_|ubsan_|sanitizer_)'
std_mangled='^_Z(GV)?Z?(N[rVK]*)?(St|9__gnu_cxx)'
for lib in "$engine" "$support"; do
  base=$(link_name "$lib")
  defined=$(nm -D --defined-only "$lib" | awk '{print $NF}' | sort -u)
  own=$(grep -vE "$not_ours" <<<"$defined" | grep -vE "$std_mangled" || true)
  mangled=$(grep '^_Z' <<<"$own" || true)
  [ -z "$mangled" ] || fail "$base exports C++ names:" $mangled
  exported=$(grep -v '^_Z' <<<"$own" || true)
  listed=$(awk -F'\t' -v l="$base" '$1 == l {print $2}' <<<"$rows" | sort -u)
  [ -n "$listed" ] || fail "conformance.md has no \"## \`$base\`\" section"
  missing=$(comm -23 <(echo "$exported") <(echo "$listed") | grep . || true)
  [ -z "$missing" ] || fail "$base exports, conformance.md has no row:" $missing
  extra=$(comm -13 <(echo "$exported") <(echo "$listed") | grep . || true)
  [ -z "$extra" ] || fail "conformance.md rows that $base does not export:" $extra
done
strays=$(cut -f1 <<<"$rows" | sort -u |
         grep -vxF -e "$(link_name "$engine")" -e "$(link_name "$support")" || true)
[ -z "$strays" ] || fail "conformance.md sections for libraries not checked:" $strays

# --- the tests a row may name: the cases of every test source that its
# folder's CMakeLists.txt builds, in the folders tests/CMakeLists.txt adds,
# and the tests registered by name.
folders=$(sed -nE 's/^[[:space:]]*add_subdirectory\(([A-Za-z0-9_]+)\).*/\1/p' \
          "$src/tests/CMakeLists.txt")
known=$(
  for sub in $folders; do
    dir=$src/tests/$sub list=$src/tests/$sub/CMakeLists.txt
    sed -nE 's/.*add_test\(NAME ([A-Za-z0-9_.]+).*/\1/p' "$list"
    for f in "$dir"/*.cc "$dir"/*.c; do
      [ -f "$f" ] && grep -qwF "$(basename "$f")" "$list" || continue
      sed -nE 's/^[[:space:]]*TEST(_F)?\([[:space:]]*([A-Za-z0-9_]+)[[:space:]]*,[[:space:]]*([A-Za-z0-9_]+)[[:space:]]*\).*/\2.\3/p' "$f"
    done
  done | sort -u)
suites=$(cut -d. -f1 <<<"$known" | sort -u)

# --- each row: its file holds the name; its tests exist or it says "none";
# a function it is reached "through" has a row of its own.
while IFS=$'\t' read -r lib name path line tests; do
  where="conformance.md:$line: $name"
  if [ ! -f "$src/$path" ]; then
    fail "$where: no file $path"
  elif ! grep -qw -- "$name" "$src/$path"; then
    fail "$where: $path does not contain it"
  fi
  refs=$(grep -oE '`[^`]+`' <<<"$tests" | tr -d '`' || true)
  if [ -z "$(grep -F . <<<"$refs" || true)" ] && [[ $tests != none* ]]; then
    fail "$where: names no test and does not say none"
  fi
  while read -r ref; do
    case $ref in
      '') ;;
      *.\*) grep -qxF -- "${ref%.\*}" <<<"$suites" || fail "$where: no suite $ref" ;;
      *.*) grep -qxF -- "$ref" <<<"$known" || fail "$where: no test $ref" ;;
      *) grep -qxF -- "$ref" <<<"$documented" || fail "$where: no row for $ref" ;;
    esac
  done <<<"$refs"
done <<<"$rows"

# --- the transport: imported by the engine, defined by neither library.
transport=$(sed -nE 's/^ARBOR_EXPORT[^(]*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)\(.*/\1/p' \
            "$src/include/arbor/transport.h")
[ -n "$transport" ] || fail "no functions found in include/arbor/transport.h"
undefined=$(nm -D --undefined-only "$engine" | awk '{print $NF}')
for f in $transport; do
  grep -qx -- "$f" <<<"$undefined" || fail "not imported by $(basename "$engine"): $f"
  for lib in "$engine" "$support"; do
    if nm -D --defined-only "$lib" | awk '{print $NF}' | grep -qx -- "$f"; then
      fail "defined by $(basename "$lib"), must only be imported: $f"
    fi
  done
done

[ $status -eq 0 ] && echo "exports, conformance.md and transport imports agree"
exit $status
