#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer
# into build-fuzz/, straight from the sources (no CMake cache shared with the normal build).
set -euo pipefail
cd "$(dirname "$0")/.."
out=build-fuzz
mkdir -p "$out/obj"
flags=(-std=c++20 -g -O1 -I. -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined)
objs=()
for src in runtime/*.cpp qmsg/*.cpp; do
  obj="$out/obj/$(echo "$src" | tr / _).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ]; then
    clang++ "${flags[@]}" -c "$src" -o "$obj"
  fi
  objs+=("$obj")
done
for target in fuzz/*_fuzz.cpp; do
  name=$(basename "$target" .cpp)
  clang++ "${flags[@]}" -fsanitize=fuzzer "$target" "${objs[@]}" -licuuc -licudata -lpthread -o "$out/$name"
done
