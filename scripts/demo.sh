#!/usr/bin/env bash
# The main job: builds everything (installing what is missing), starts the
# hub server on a free loopback port, runs the demo against it, and stops
# the hub again.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j"$(nproc)"

# The hub prints "zelhub listening on ADDR:PORT" once it accepts connections.
exec {hub_out}< <(exec build/tools/zelhub --port 0)
hub_pid=$!
trap 'kill "$hub_pid" 2>/dev/null || true' EXIT
if ! read -r -t 10 -u "$hub_out" line || [[ $line != "zelhub listening on "* ]]; then
  echo "zelhub did not start" >&2
  exit 1
fi
port=${line##*:}
echo "== zelhub (pid $hub_pid) listening on 127.0.0.1:$port"

build/examples/hub_demo "$port"
