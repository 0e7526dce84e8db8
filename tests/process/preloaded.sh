#!/usr/bin/env bash
# Runs each test of some programs in a process of its own, with an allocator put in front of the C
# library's: preloaded.sh LIBRARY PROGRAM...
set -euo pipefail

library=$1
shift
if ! LD_PRELOAD=$library true 2>&1 | { ! grep -q 'cannot be preloaded'; }; then
  echo "$library is not installed"
  exit 77
fi
# It must be the one that is asked: its library lies in the process's memory.
LD_PRELOAD=$library grep -q "$library" /proc/self/maps
count=0
for program in "$@"; do
  for test in $("$program" --gtest_list_tests | awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }'); do
    LD_PRELOAD=$library "$program" --gtest_filter="$test" --gtest_brief=1 > preloaded.log 2>&1 || {
      cat preloaded.log
      echo "$test fails with $library"
      exit 1
    }
    count=$((count + 1))
  done
done
[[ $count -gt 0 ]]
echo "$count tests pass with $library"
