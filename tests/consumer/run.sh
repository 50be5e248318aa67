#!/usr/bin/env bash
# run.sh BUILD_DIR PROJECT_DIR WORK_DIR CXX SANITIZE_FLAGS
set -euo pipefail
build=$1 project=$2 work=$3 cxx=$4 flags=${5:-}
rm -rf "$work"
mkdir -p "$work"
stage="$work/stage"

cmake --install "$build" --prefix "$stage" >/dev/null
libdir=$(find "$stage" -name 'liblocaldisk.so' -printf '%h\n' | head -n 1)
plugin="$libdir/liblocaldisk.so"
include_root="$stage/include/localdisk"

cmake -S "$project" -B "$work/build" -G Ninja \
  -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$stage" \
  -DLOCALDISK_INCLUDE_ROOT="$include_root" \
  -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
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
rm -rf "$work"
echo "consumer: ok"
