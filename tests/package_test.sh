#!/bin/sh
# package_test.sh BUILD_DIRECTORY C_COMPILER C++_COMPILER: what is installed for authors of other
# daemons builds the documented examples at every language level, found by pkg-config and by CMake.
set -eu

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$1" --prefix "$prefix" --component development >/dev/null
flags="-Wall -Wextra -pedantic -Werror -o $prefix/program
    $(PKG_CONFIG_PATH=$prefix/share/pkgconfig pkg-config --cflags pelkin)"

# shellcheck disable=SC2086 # the flags are words
build() { # SOURCE
    for level in gnu89 c99 c11 c17; do
        "$c" -std=$level -x c "$1" $flags
    done
    for level in c++98 c++11 c++20; do
        "$cxx" -std=$level -x c++ "$1" $flags
    done
}
c=$2 cxx=$3
for header in "$prefix"/include/pelkin/*.h; do # each on its own
    printf '#define _POSIX_C_SOURCE 200809L\n#include <pelkin/%s>\nint main(void) { return 0; }\n' \
        "${header##*/}" >"$prefix/header.c"
    build "$prefix/header.c"
done
for example in "$prefix"/share/doc/pelkin-dev/examples/*.c; do
    build "$example"
done
cat >"$prefix/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.13)
project(sibling C)
find_package(pelkin 0.1 REQUIRED)
add_executable(sibling "$example")
target_link_libraries(sibling pelkin::requester)
END
cmake -S "$prefix" -B "$prefix/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/build" >/dev/null
