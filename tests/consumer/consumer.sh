#!/usr/bin/env bash
# One step of using the installed library as a stranger does; called by CTest in a build folder.
# PSP_PREFIX and PSP_LIBDIR name another place where it lies than the step "install" makes.
set -euo pipefail

step=$1
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
consumer_dir=$source_dir/tests/consumer
prefix=${PSP_PREFIX:-$PWD/consumer/prefix}
libdir=$prefix/${PSP_LIBDIR:-lib}
warnings="-Wall -Wextra -pedantic -Werror"
export PKG_CONFIG_PATH=$libdir/pkgconfig
export LD_LIBRARY_PATH=$libdir

fail() { echo "$*" >&2; exit 1; }

expect() {  # expect WHAT EXPECTED FOUND
  [[ $2 == "$3" ]] || fail "$1: expected" "$2" "found" "$3"
}

# Streams end lines with carriage return and line feed.
output_of() { "$@" | tr -d '\r'; }

compile_c() {  # compile_c PROGRAM SOURCE...
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $warnings "${@:2}" $(pkg-config --cflags --libs psp) -o "$1"
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
    lib/libpsp.so.11.0.586 lib/pkgconfig/psp.pc share/doc/psp/psp.spdx.json)
  expect "installed files" "$expected" "$(cd "$prefix" && find . ! -type d | cut -c3- | LC_ALL=C sort)"
  expect "soname" libpsp.so.11 \
    "$(readelf -d "$prefix/lib/libpsp.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
  "$source_dir/tools/check_spdx" "$prefix/share/doc/psp/psp.spdx.json" "$prefix"
}

step_pkg_config() {
  expect "version" 11.0.586 "$(pkg-config --modversion psp)"
  compile_c consumer/hello "$consumer_dir/hello.c"
  expect "output" "40 + 2 = 42" "$(output_of consumer/hello)"
  # With every library inside: a program that needs nothing at run time.
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $warnings -static "$consumer_dir/hello.c" $(pkg-config --static --cflags --libs psp) \
    -o consumer/hello_all_static
  expect "output of the static program" "40 + 2 = 42" "$(output_of consumer/hello_all_static)"
  expect "libraries of the static program" "" \
    "$(readelf -d consumer/hello_all_static | grep NEEDED || true)"
}

build_consumer() {  # build_consumer FOLDER CMAKE-ARGUMENT...
  local folder=consumer/$1 program
  shift
  cmake -S "$consumer_dir/find_package" -B "$folder" -G Ninja "$@" > "$folder.log"
  cmake --build "$folder" >> "$folder.log"
  for program in hello_shared hello_static hello_cxx; do
    expect "$program" "40 + 2 = 42" "$(output_of "$folder/$program")"
  done
  expect "libraries of the static program" libc.so.6 \
    "$(readelf -d "$folder/hello_static" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')"
}

step_find_package() {
  build_consumer find_package -DCMAKE_PREFIX_PATH="$prefix"
}

# Both ways share a build folder, where the second finds the library built by the first.
step_subproject() {
  local from out=consumer/subproject
  unset LD_LIBRARY_PATH
  for from in add_subdirectory FetchContent; do
    rm -rf $out/hello_* $out/prefix
    build_consumer subproject -DPSP_FROM=$from -DPSP_SOURCE="$source_dir"
    cmake --install $out --prefix $out/prefix > consumer/subproject-install.log
    expect "what the project installs" $out/prefix/bin/hello_cxx "$(find $out/prefix ! -type d)"
    expect "tests in the project" "" "$(find $out -name CTestTestfile.cmake)"
  done
}

step_header() {
  "$source_dir/tools/check_header" "$prefix/include"
}

step_readme() {
  [[ $(< "$source_dir/README.md") == *"$(< "$consumer_dir/hello.c")"* ]] ||
    fail "README.md does not show tests/consumer/hello.c as it is"
}

# Each example works in a folder of its own; what it writes beside the output is not looked at.
step_examples() {
  local source name found=0 run=$PWD/consumer/examples
  rm -rf consumer/examples
  cd "$source_dir/examples"  # the name of the source is a part of one output
  for source in *.c recipes/*.c; do
    name=$(basename "$source" .c)
    mkdir -p "$run/$name"
    compile_c "$run/$name/program" "$source"
    (cd "$run/$name" && output_of ./program) | diff "${source%.c}.out" - || fail "$source failed"
    grep -q "(${source//./\\.})" README.md || fail "examples/README.md does not list $source"
    found=$((found + 1))
  done
  expect "expected outputs" "$found" "$(find . -name '*.out' | wc -l)"
}

expect_failure() {  # expect_failure STATUS MESSAGE ARGUMENT...
  local status=0 expected=$1 message=$2 found
  shift 2
  found=$(./pkgdb "$@" 2>&1 | tr -d '\r') || status=$?
  expect "exit status of pkgdb $*" "$expected" "$status"
  [[ $found == *"$message"* ]] || fail "pkgdb $* should say \"$message\", said" "$found"
}

names_of() { output_of ./pkgdb --data asked "$@" | sed '1d;$d' | cut -d' ' -f1 | xargs; }

# Each query alone and through the server, which drops what is no request and ends when told.
check_queries() {
  ./pkgdb --data asked set input file "$expected/status" > console.txt
  expect_failure 8 "no server reads it" --data asked ask 'size > 1'
  ./pkgdb --data asked serve > console.txt 2>&1 &
  local server=$! tries=100 word
  # shellcheck disable=SC2064
  trap "kill $server" EXIT  # no server outlives a check that fails
  until grep -q serving console.txt || ((--tries == 0)); do sleep 0.05; done
  expect_failure 5 "cannot be locked" --data asked serve
  echo "no request" > asked/pkgdb.pipe
  mkfifo asked/reply-1.pipe  # of a client that died before its answer came
  printf 'pkgq\1\0\0\0\0\0\0\0' > asked/pkgdb.pipe
  rm asked/reply-1.pipe
  for word in query ask; do
    expect "$word" "equal-a equal-b last" "$(names_of $word 'section = "misc" order by size desc')"
    expect "$word" "held equal-a equal-b" \
      "$(names_of $word $'not (size < 5 or section = "fonts")\norder by section desc limit 3')"
    expect "$word" "bare" "$(names_of $word 'VERSION = "" AND Size < 1')"
    expect "$word" "" "$(names_of $word 'name = "none"')"
    expect_failure 7 'query:2:3: "und" does not fit here' --data asked $word $'name = "é"\n  und size > 3'
    expect_failure 7 'query:1:15: "colour" is no field' --data asked $word 'name = "é" or colour = 1'
    expect_failure 7 'query:1:7: the query ends too early' --data asked $word 'size >'
    expect_failure 7 'query:1:8: "é" starts nothing' --data asked $word 'name = é'
    expect_failure 7 'query:1:8: the string has no end' --data asked $word 'name = "'
    expect_failure 7 'query:1:8: size is compared with a number' --data asked $word 'size = "1"'
    expect_failure 7 'a query has at most 3000 bytes' --data asked $word "$(printf '(%.0s' {1..3001})"
  done
  kill -TERM "$server"
  trap - EXIT
  wait "$server" || fail "the server's exit status is $?"
  grep -q '^\[.*\]  [0-9]* queries answered' asked/serve.log || fail "the server has not logged its end"
  grep -q '^\[.*\]  1 asked, but does not get the answer' asked/serve.log || fail "no lost client in the log"
  expect "files of the server" "pkgdb.ini pkgdb.lock pkgdb.pipe serve.log" "$(cd asked && echo *)"
}

# Works in a folder of its own; what does not change from run to run is compared: the table on the
# console, the reports, the names of all files.
step_pkgdb() {
  local expected=$consumer_dir/pkgdb out=pkgdb-out
  rm -rf consumer/pkgdb
  mkdir consumer/pkgdb
  compile_c consumer/pkgdb/pkgdb "$source_dir"/examples/pkgdb/*.c
  cd consumer/pkgdb

  ./pkgdb set input file "$expected/status" > console.txt
  output_of ./pkgdb report > console.txt
  sed -n '/installed/,/^$/p;/largest packages/,/^$/p' console.txt |
    diff "$expected/expected-table.txt" - || fail "the table differs"
  iconv -f UTF-16 -t UTF-8 $out/packages-utf16.txt | tr -d '\r' |
    diff "$expected/expected-report.txt" - || fail "the report differs"
  expect "log lines with a stamp" "$(wc -l < $out/pkgdb.log)" \
    "$(grep -c '^\[[0-3][0-9]-...-2[0-9]\{3\} [0-9:]\{8\}\]  [a-zU]' $out/pkgdb.log)"
  local before after
  read -r before after < <(sed -n 's/.*heap: \([0-9]*\).*, \([0-9]*\).*/\1 \2/p' $out/pkgdb.log)
  [[ $before -gt $after ]] || fail "the heap did not shrink from $before KiB: $after KiB"

  # The same in memory, with nothing on the disk.
  ./pkgdb --data nowhere set input file "$expected/status" > console.txt
  output_of ./pkgdb --data nowhere --memory report > console.txt
  sed -n '/installed/,/^$/p;/largest packages/,/^$/p' console.txt |
    diff "$expected/expected-table.txt" - || fail "the table of the store differs"
  sed -n '/utf16.txt, .* begins:/,/^$/{/begins/d;/^$/d;p}' console.txt |
    diff <(head -n 3 "$expected/expected-report.txt") - || fail "the report of the store differs"
  expect "files on the disk" pkgdb.ini "$(cd nowhere && echo *)"

  # Several old reports, one of which finds its first name taken; the log to a channel.
  cp $out/packages-utf16.txt first.txt
  echo mine > $out/packages-mine.txt
  mkdir $out/reports.old
  echo taken > $out/reports.old/packages-mine.0001.txt
  ./pkgdb set report encoding utf-8 > console.txt
  ./pkgdb set log file stderr > console.txt
  ./pkgdb report > console.txt 2> log.txt
  tr -d '\r' < $out/packages-utf8.txt | diff "$expected/expected-report.txt" - ||
    fail "the report in UTF-8 differs"
  grep -q '^\[.*\]  old reports moved .*: 2' log.txt || fail "no stamped line on the error channel"
  cmp first.txt $out/reports.old/packages-utf16.0001.txt
  expect "the old reports that others had written" "taken mine" \
    "$(cat $out/reports.old/packages-mine.000[12].txt | xargs)"
  expect "files" "packages-utf8.txt packages.idx pkgdb.ini pkgdb.log reports.old" "$(cd $out && echo *)"

  expect_failure 2 "usage: pkgdb" --help
  expect_failure 2 "usage: pkgdb" set report encoding
  expect_failure 5 "Not a directory" --data pkgdb/out report
  expect_failure 6 "[report] encoding: utf-8 or utf-16" set report encodign utf-8
  expect_failure 6 "should be utf-8 or utf-16" set report encoding latin-1
  expect_failure 6 "should be a name that ends in .log" set log file "$expected/status"
  expect_failure 6 "an INI file cannot hold" set input file $'x\n[log]'
  expect "settings after refused changes" \
    "[input] file=$expected/status [report] encoding=utf-8 [log] file=stderr" \
    "$(tr -d '\r' < $out/pkgdb.ini | xargs)"

  # Settings as a user's editor may leave them.
  printf '[report]\nencoding = latin-1 ; old\n' > $out/pkgdb.ini
  expect_failure 6 '[report] encoding is "latin-1", but should be utf-8 or utf-16' report
  printf '[report]\nencoding = utf-16\n' > $out/pkgdb.ini
  expect_failure 6 'encoding stays "utf-16"' set report encoding utf-8

  check_queries

  local bad
  printf '[input]\nfile = bad\n' > $out/pkgdb.ini
  expect_failure 3 "No such file or directory" report
  for bad in ':bad: no record of an installed package' \
             'Package: x\nInstalled-Size: 12k:bad:2: "12k" is no size' \
             'Package: x\nno field:bad:2: neither a field' \
             'Package: x\n\xff\nVersion: 1:bad:1: cannot be read on' \
             'Version: 1\n\nPackage: x:bad:2: the record that ends here has no Package field'; do
    printf '%b\n' "${bad%%:bad:*}" > $out/bad
    expect_failure 4 "bad:${bad#*:bad:}" report
  done
}

"step_$step"
