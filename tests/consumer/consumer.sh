#!/usr/bin/env bash
# One step of using the installed library as a stranger does; called by CTest in a build folder.
set -euo pipefail

step=$1
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
consumer_dir=$source_dir/tests/consumer
prefix=$PWD/consumer/prefix
warnings="-Wall -Wextra -pedantic -Werror"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export LD_LIBRARY_PATH=$prefix/lib

fail() { echo "$*" >&2; exit 1; }

expect() {  # expect WHAT EXPECTED FOUND
  [[ $2 == "$3" ]] || fail "$1: expected" "$2" "found" "$3"
}

# Streams end lines with carriage return and line feed.
output_of() { "$@" | tr -d '\r'; }

compile_c() {  # compile_c SOURCE PROGRAM
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $warnings "$1" $(pkg-config --cflags --libs psp) -o "$2"
}

step_install() {
  rm -rf consumer
  mkdir consumer
  cmake --install . --prefix "$PWD/consumer/first" > consumer/install.log
  mv consumer/first "$prefix"  # nothing in the tree may hold the place where it was installed
  local expected
  expected=$(printf '%s\n' include/psp.h lib/cmake/psp/psp-config-version.cmake \
    lib/cmake/psp/psp-config.cmake lib/cmake/psp/psp-targets-relwithdebinfo.cmake \
    lib/cmake/psp/psp-targets.cmake lib/libpsp.a lib/libpsp.so lib/libpsp.so.11 \
    lib/libpsp.so.11.0.586 lib/pkgconfig/psp.pc)
  expect "installed files" "$expected" "$(cd "$prefix" && find . ! -type d | cut -c3- | LC_ALL=C sort)"
  expect "soname" libpsp.so.11 \
    "$(readelf -d "$prefix/lib/libpsp.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
}

step_pkg_config() {
  expect "version" 11.0.586 "$(pkg-config --modversion psp)"
  compile_c "$consumer_dir/hello.c" consumer/hello
  expect "output" "40 + 2 = 42" "$(output_of consumer/hello)"
}

step_find_package() {
  cmake -S "$consumer_dir/find_package" -B consumer/find_package -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" > consumer/find_package.log
  cmake --build consumer/find_package >> consumer/find_package.log
  for program in hello_shared hello_static hello_cxx; do
    expect "$program" "40 + 2 = 42" "$(output_of "consumer/find_package/$program")"
  done
  local needed
  needed=$(readelf -d consumer/find_package/hello_static | grep -c 'NEEDED.*libpsp') || true
  expect "shared psp needed by the static program" 0 "$needed"
}

step_header() {
  "$source_dir/tools/check_header" "$prefix/include"
}

step_readme() {
  [[ $(< "$source_dir/README.md") == *"$(< "$consumer_dir/hello.c")"* ]] ||
    fail "README.md does not show tests/consumer/hello.c as it is"
}

expect_failure() {  # expect_failure STATUS MESSAGE ARGUMENT...
  local status=0 expected=$1 message=$2 found
  shift 2
  found=$(consumer/pkgdb/pkgdb "$@" 2>&1 | tr -d '\r') || status=$?
  expect "exit status of pkgdb $*" "$expected" "$status"
  [[ $found == *"$message"* ]] || fail "pkgdb $* should say \"$message\", said" "$found"
}

step_pkgdb() {
  local out=consumer/pkgdb/out
  rm -rf consumer/pkgdb
  mkdir consumer/pkgdb
  compile_c "$source_dir/examples/pkgdb.c" consumer/pkgdb/pkgdb

  # What does not change from run to run: the table on the console, and the report.
  # Without the C runtime's own store of small released blocks the heap's figures are exact.
  GLIBC_TUNABLES=glibc.malloc.tcache_count=0 \
    output_of consumer/pkgdb/pkgdb "$consumer_dir/pkgdb/status" $out > consumer/pkgdb/console.txt
  sed -n '/installed/,/^$/p;/largest packages/,/^$/p' consumer/pkgdb/console.txt |
    diff "$consumer_dir/pkgdb/expected-table.txt" - || fail "the table differs"
  iconv -f UTF-16 -t UTF-8 $out/packages-utf16.txt | tr -d '\r' |
    diff "$consumer_dir/pkgdb/expected-report.txt" - || fail "the report differs"
  expect "log lines with a stamp" "$(wc -l < $out/pkgdb.log)" \
    "$(grep -c '^\[[0-3][0-9]-...-2[0-9]\{3\} [0-9:]\{8\}\]  [a-zU]' $out/pkgdb.log)"
  local before after
  read -r before after < <(sed -n 's/.*heap: \([0-9.]* KiB\) before.* \([0-9.]*\) KiB after.*/\1 \2/p' \
    $out/pkgdb.log | tr -d 'KiB')
  expect "heap after the tag went" "$before" "$after"

  expect_failure 2 "usage: pkgdb" --help
  expect_failure 3 "No such file or directory" consumer/pkgdb/missing $out
  expect_failure 4 "no record of an installed package" /dev/null $out
  expect_failure 5 "Not a directory" "$consumer_dir/pkgdb/status" consumer/pkgdb/pkgdb/out
  local bad
  for bad in 'Package: x\nInstalled-Size: 12k:bad:2: "12k" is no size' \
             'Package: x\nno field:bad:2: neither a field' \
             'Version: 1\n\nPackage: x:bad:2: the record that ends here has no Package field'; do
    printf '%b\n' "${bad%%:bad:*}" > consumer/pkgdb/bad
    expect_failure 4 "bad:${bad#*:bad:}" consumer/pkgdb/bad $out
  done
}

"step_$step"
