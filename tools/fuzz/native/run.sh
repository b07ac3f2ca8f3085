#!/usr/bin/env bash
# Builds the platform-independent units natively with clang (ASan, UBSan),
# runs their ordinary checks, then a libFuzzer pass over them.
#
#   tools/fuzz/native/run.sh [--out DIR] [--runs N | --seconds T] [--build-only]
#
# DIR (default build/fuzz-native) keeps the binaries (rebuilt when a source
# is newer), the growing corpus and any crash-* input libFuzzer writes.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../.." && pwd)
out=$root/build/fuzz-native runs= seconds= build_only=0
while [ $# -gt 0 ]; do
  case "$1" in
    --out) out=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --seconds) seconds=$2; shift 2 ;;
    --build-only) build_only=1; shift ;;
    *) echo "run.sh: unknown option $1" >&2; exit 1 ;;
  esac
done
[ -n "$runs$seconds" ] || runs=20000
mkdir -p "$out/corpus"

cxx=$(command -v clang++-14 || command -v clang++ || true)
[ -n "$cxx" ] || { echo "run.sh: clang++ not found (scripts/setup-deps installs it)" >&2; exit 1; }

units=("$root/src/crypto/Base64Codec.cpp" "$root/src/soap/UserInputEscape.cpp"
       "$root/src/messages/SoapFaultTable.cpp" "$root/src/clients/ActFlagTable.cpp" "$root/src/auth/HexDigest.cpp")
flags=(-std=c++17 -g -O1 -fno-omit-frame-pointer -Wall -Wextra -Werror
       -fsanitize=address,undefined -fno-sanitize-recover=undefined
       -I"$here/shim" -I"$here" -I"$root/include" -I"$root/src")

# Rebuilds $1 from the units and $2 unless it is newer than all of them.
build() {
  local target=$1 main=$2 extra=$3 newest
  newest=$(ls -t "${units[@]}" "${units[@]/%.cpp/.h}" "$here/Checks.cpp" "$here/FuzzUnits.cpp" "$here/Units.h" "$here/shim/windows.h" "$0" \
           "$root/include/Quorvantis.h" | head -1)
  if [ ! -x "$target" ] || [ "$newest" -nt "$target" ]; then
    "$cxx" "${flags[@]}" $extra "${units[@]}" "$main" -o "$target"
  fi
}
build "$out/native-checks" "$here/Checks.cpp" ""
build "$out/fuzz-units" "$here/FuzzUnits.cpp" "-fsanitize=fuzzer"
[ "$build_only" = 1 ] && exit 0

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"$out/native-checks"

# A few hand-made starting points, one per unit (the first byte picks it).
if [ -z "$(ls -A "$out/corpus")" ]; then
  printf '\000foobar'                         >"$out/corpus/base64-roundtrip"
  printf '\001Zm9v\r\nYmFy=='                 >"$out/corpus/base64-decode"
  printf '\002<\000&\000"\000\001\000'        >"$out/corpus/escape"
  printf '\003soap:Sender|wls:NoSuchAccount|wls:|zeb:' >"$out/corpus/fault"
  printf '\004\007\077\007\000'               >"$out/corpus/actflags"
  printf '\00500abff'                         >"$out/corpus/hex"
fi
limit=(-runs="${runs:-0}")
[ -n "$seconds" ] && limit=(-max_total_time="$seconds")
start=$(date +%s.%N)
# libFuzzer prints its statistics on stderr; the last lines say what it did.
"$out/fuzz-units" "${limit[@]}" -max_len=4096 -print_final_stats=1 -artifact_prefix="$out/" \
    "$out/corpus" 2>"$out/last-run.log" || { tail -40 "$out/last-run.log" >&2; exit 1; }
end=$(date +%s.%N)
grep -E '^#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb|stat::new_units_added' "$out/last-run.log" || true
awk -v s="$start" -v e="$end" 'BEGIN { printf "native fuzz: %.1f s, corpus %s inputs\n", e - s, ARGV[1] }' \
    "$(ls "$out/corpus" | wc -l)"
