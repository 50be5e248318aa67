#!/usr/bin/env bash
# run.sh BUILD_DIR PROJECT_DIR WORK_DIR CXX SANITIZE_FLAGS EXAMPLE_PLUGIN_DIR
set -euo pipefail
build=$1 project=$2 work=$3 cxx=$4 flags=${5:-} example=$6
rm -rf "$work"
mkdir -p "$work"
stage="$work/stage"

cmake --install "$build" --prefix "$stage" >/dev/null
libdir=$(find "$stage" -name 'liblocaldisk.so' -printf '%h\n' | head -n 1)
plugin="$libdir/liblocaldisk.so"
include_root="$stage/include/localdisk"

# The example plug-in's sources, copied as a plug-in author starts.
mkdir -p "$work/example/plugins/memory"
cp "$example"/*.cpp "$example"/*.h "$example/memory.map" "$work/example/plugins/memory/"

cmake -S "$project" -B "$work/build" -G Ninja \
  -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$stage" \
  -DLOCALDISK_INCLUDE_ROOT="$include_root" \
  -DEXAMPLE_PLUGIN_ROOT="$work/example" \
  -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_MODULE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/build" >/dev/null

# pkg-config gives a host the same headers and library.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# Flag lists are split into words on purpose.
read -ra flag_words <<<"$flags"
read -ra cflags <<<"$(pkg-config --cflags localdisk)"
read -ra libs <<<"$(pkg-config --libs localdisk)"
"$cxx" -std=c++17 -Wall -Wextra -Werror "${flag_words[@]}" "${cflags[@]}" \
  -o "$work/link_exports_pc" "$project/link_exports.cpp" "${libs[@]}"

"$work/build/host_contract" "$plugin"
LD_LIBRARY_PATH="$libdir" "$work/build/link_exports"
LD_LIBRARY_PATH="$libdir" "$work/link_exports_pc"

# The plug-in built on localdisk::support passes every check of the
# installed suite: at least 40, none failed, none skipped.
"$work/build/plugin_conformance" >"$work/conformance.out" 2>&1 || {
  cat "$work/conformance.out" >&2
  exit 1
}
passed=$(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?\.$/\1/p' "$work/conformance.out")
if [ -z "$passed" ] || [ "$passed" -lt 40 ] || grep -q '^\[  SKIPPED \]' "$work/conformance.out"; then
  tail -n 20 "$work/conformance.out" >&2
  echo "consumer: the example plug-in did not pass at least 40 checks without a skip" >&2
  exit 1
fi
# Only the entry points leave the plug-in; the shared layer stays inside.
exported=$(nm -D --defined-only "$(find "$work/build" -name 'libexample_plugin.so')" |
  awk '{print $3}' | sort | tr '\n' ' ')
if [ "$exported" != "BindLogger FreeP GetAuthFields GetAuthType GetOptFields GetProtocol GetSupportProtocol UnbindLogger " ]; then
  echo "consumer: the example plug-in exports: $exported" >&2
  exit 1
fi
rm -rf "$work"
echo "consumer: ok (the example plug-in passed $passed checks)"
