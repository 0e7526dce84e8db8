#!/usr/bin/env bash
# Runs each test of some programs in a process of its own, with an allocator put in front of the C
# library's: preloaded.sh LIBRARY PROGRAM... Those that kill children all the time are left out:
# they take long and show nothing about allocation.
set -euo pipefail

library=$1
shift
if ! LD_PRELOAD=$library grep -q "$library" /proc/self/maps 2> /dev/null; then
  echo "$library is not installed"
  exit 77
fi
count=0
for program in "$@"; do
  for test in $("$program" --gtest_list_tests | awk '/^[^ ]/ { suite = $1 } /^ / && !/Killed/ { print suite $1 }'); do
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
