#!/usr/bin/env bash
# The consumer test: configures tests/package/consumer with the MinGW-w64
# toolchain against the unpacked release archive only (CMAKE_PREFIX_PATH, no
# package registry), builds it, starts the archive's reference server on its
# own (free loopback ports, one user, a Basic2 policy) and runs the program
# under Wine in the test's prefix. Stops the server on every way out.
#   run-consumer.sh <source dir> <unpacked archive> <work dir>
# WINEPREFIX is the test's prefix (the fixture starts and stops it).
set -euo pipefail
source_dir=$1 unpacked=$2 work=$3
: "${WINEPREFIX:?}"
rm -rf "$work"
mkdir -p "$work"

cmake -S "$source_dir/tests/package/consumer" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_PREFIX_PATH="$unpacked" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
  -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF -DCMAKE_BUILD_TYPE=Release
found=$(sed -n 's/^Quorvantis_DIR:PATH=//p' "$work/build/CMakeCache.txt")
if [ "$found" != "$unpacked/lib/cmake/Quorvantis" ]; then
  echo "the package was found in '$found', not in the unpacked archive" >&2
  exit 1
fi
cmake --build "$work/build"
cmp "$unpacked/bin/Quorvantis.dll" "$work/build/Quorvantis.dll"

server_pid=
stop_server() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
}
trap stop_server EXIT
/usr/bin/python3 "$unpacked/share/quorvantis/refserver/refserver.py" --http-port 0 --https-port 0 \
  --users '{"alice": {"password": "wonderland", "domain": "LAB"}}' \
  --policy '[{"Info": "Package test", "AuthType": "Basic2", "EnableCredentialCache": "true"}]' \
  </dev/null >"$work/refserver.out" 2>"$work/refserver.err" &
server_pid=$!
http_port=; https_port=
for _ in $(seq 1 100); do
  line=$(grep -m1 '^http_port=' "$work/refserver.out" 2>/dev/null || true)
  if [ -n "$line" ]; then
    http_port=$(sed -E 's/.*http_port=([0-9]+).*/\1/' <<<"$line")
    https_port=$(sed -E 's/.*https_port=([0-9]+).*/\1/' <<<"$line")
    break
  fi
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$http_port" ]; then
  echo "the archive's reference server did not start:" >&2
  cat "$work/refserver.err" >&2
  exit 1
fi

# Wine sees the Unix file system as drive Z:.
winpath() { printf 'Z:%s' "$(tr / '\\' <<<"$1")"; }
printf '[Quorvantis]\r\nPortNo=%s\r\nSecurePortNo=%s\r\nTimeout=10000\r\nDebugLevel=5\r\nDebugFile=%s\r\n' \
  "$http_port" "$https_port" "$(winpath "$work/trace.log")" >"$work/Quorvantis.ini"

status=0
(cd "$work/build" && "$source_dir/scripts/wine-run" app.exe "$(winpath "$work/Quorvantis.ini")" alice wonderland LAB) || status=$?
if [ "$status" != 0 ]; then
  echo "app.exe failed ($status); the add-in's trace is $work/trace.log, the server's log $work/refserver.err" >&2
  tail -n 20 "$work/trace.log" >&2 2>/dev/null || true
fi
exit "$status"
