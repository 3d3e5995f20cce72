#!/usr/bin/env bash
# Builds the library and runs every test: a plain build, a build with
# AddressSanitizer and UndefinedBehaviorSanitizer (halting on any report), a
# ThreadSanitizer build of the suites that run several threads, then each
# fuzz target for a short, fixed time on top of its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

jobs=$(nproc)
fuzz_seconds=${ZEL_FUZZ_SECONDS:-20}
summary=$(mktemp)
installed=$(mktemp -d)
trap 'rm -rf "$summary" "$installed"' EXIT

configure_and_build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
}

run_ctest() {
  local dir=$1
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 300 | tee -a "$summary"
}

echo "== plain build"
configure_and_build build
run_ctest build

echo "== installed: the examples built against the package, once with find_package(zel), once with pkg-config"
cmake --install build --prefix "$installed/prefix" >/dev/null
cmake -S examples -B "$installed/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$installed/prefix" >/dev/null
cmake --build "$installed/cmake" -j"$jobs"
pc_dir=$installed/prefix/lib/pkgconfig
zel_flags=$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs zel)
zel_libdir=$(PKG_CONFIG_PATH=$pc_dir pkg-config --variable=libdir zel)
mkdir "$installed/pkg-config"
for source in examples/*.cpp; do
  g++ -std=c++20 "$source" $zel_flags -Wl,-rpath,"$zel_libdir" -o "$installed/pkg-config/$(basename "$source" .cpp)"
done
# The examples that need no peer; the UDP one on a port of this run's own,
# below the ephemeral range.
for built in "$installed/cmake" "$installed/pkg-config"; do
  "$built/message_example"
  "$built/udp_example" $((20000 + $$ % 10000))
done
# The installed tool finds the installed library.
[ "$(echo "5 1 x" | "$installed/prefix/bin/zel" conv | "$installed/prefix/bin/zel" conv)" = "5 1 x" ]

echo "== the Debian package"
cpack --config build/CPackConfig.cmake -G DEB -B "$installed/deb" >/dev/null
contents=$(dpkg-deb --contents "$installed"/deb/zel_*.deb)
expected=(usr/lib/libzel.so.0 usr/bin/zelhub usr/bin/zelproxy usr/bin/zel)
for header in include/zel/*.h; do expected+=("usr/$header"); done
for path in "${expected[@]}"; do
  grep -qE " \./$path( |$)" <<<"$contents" || { echo "the package lacks /$path" >&2; exit 1; }
done
echo "$(basename "$installed"/deb/zel_*.deb): ${#expected[@]} expected files present"

echo "== sanitizer build (address, undefined)"
configure_and_build build-asan -DZEL_SANITIZE=ON -DZEL_BENCH=OFF
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  run_ctest build-asan

echo "== thread sanitizer build (tests labelled threads)"
cmake -S . -B build-tsan -G Ninja -DZEL_TSAN=ON -DZEL_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$jobs" --target test_api test_descriptors test_hub test_amqp test_zmq test_udp
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp \
  ctest --test-dir build-tsan -j"$jobs" -L threads --output-on-failure --timeout 300 | tee -a "$summary"

echo "== fuzzing, ${fuzz_seconds}s per target"
CC=clang CXX=clang++ configure_and_build build-fuzz -DZEL_FUZZ=ON -DZEL_BENCH=OFF
for target in build-fuzz/fuzz/fuzz_*; do
  name=$(basename "$target")
  work=$(mktemp -d)
  echo "-- $name"
  "$target" "$work" "fuzz/corpus/$name" -max_total_time="$fuzz_seconds" -print_final_stats=1 2>&1 | tail -n 12
  rm -rf "$work"
done

# One closing line over both test runs.
passed=0; failed=0
while read -r _ _ _ f _ _ _ _ total; do
  failed=$((failed + f)); passed=$((passed + total - f))
done < <(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$summary")
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
