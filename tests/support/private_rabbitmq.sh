#!/usr/bin/env bash
# Starts a private RabbitMQ for one test program: its own epmd, node name,
# state directory and loopback listeners (plain and TLS), with a CA, a broker
# certificate and a client certificate made here. Prints one line
#   ready <beam pid> <epmd pid>
# once the broker accepts on both ports, and stops everything it started when
# the process `owner` ends, so that a crashed test leaves nothing behind.
#
# usage: private_rabbitmq.sh DIR OWNER_PID AMQP_PORT AMQPS_PORT DIST_PORT EPMD_PORT
set -euo pipefail
dir=$1 owner=$2 amqp=$3 amqps=$4 dist=$5 epmd_port=$6
mkdir -p "$dir"/{mnesia,log,tls}
cd "$dir"

make_certificates() {
  local t=tls
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=zel test CA" \
    -keyout $t/ca.key -out $t/ca.pem 2>/dev/null
  for who in broker client; do
    openssl req -newkey rsa:2048 -nodes -subj "/CN=$who" -keyout $t/$who.key -out $t/$who.csr 2>/dev/null
    printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' > $t/$who.ext
    openssl x509 -req -in $t/$who.csr -CA $t/ca.pem -CAkey $t/ca.key -CAcreateserial -days 2 \
      -extfile $t/$who.ext -out $t/$who.pem 2>/dev/null
  done
  # A CA the broker does not know, with a client certificate of its own.
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=other CA" \
    -keyout $t/other_ca.key -out $t/other_ca.pem 2>/dev/null
  openssl req -newkey rsa:2048 -nodes -subj "/CN=stranger" -keyout $t/stranger.key -out $t/stranger.csr 2>/dev/null
  openssl x509 -req -in $t/stranger.csr -CA $t/other_ca.pem -CAkey $t/other_ca.key -CAcreateserial -days 2 \
    -out $t/stranger.pem 2>/dev/null
}
[ -f tls/client.pem ] || make_certificates

cat > rabbitmq.conf <<CONF
listeners.tcp.1 = 127.0.0.1:$amqp
listeners.ssl.1 = 127.0.0.1:$amqps
ssl_options.cacertfile = $dir/tls/ca.pem
ssl_options.certfile = $dir/tls/broker.pem
ssl_options.keyfile = $dir/tls/broker.key
ssl_options.verify = verify_peer
ssl_options.fail_if_no_peer_cert = false
disk_free_limit.absolute = 1MB
loopback_users = none
CONF
: > rabbitmq-env.conf
echo '[].' > enabled_plugins

export HOME=$dir
export RABBITMQ_NODENAME=zeltest$amqp@localhost
export RABBITMQ_CONF_ENV_FILE=$dir/rabbitmq-env.conf
export RABBITMQ_CONFIG_FILE=$dir/rabbitmq
export RABBITMQ_ENABLED_PLUGINS_FILE=$dir/enabled_plugins
export RABBITMQ_MNESIA_BASE=$dir/mnesia
export RABBITMQ_MNESIA_DIR=$dir/mnesia/node
export RABBITMQ_LOG_BASE=$dir/log
export RABBITMQ_LOGS=$dir/log/broker.log
export RABBITMQ_PID_FILE=$dir/broker.pid
export RABBITMQ_DIST_PORT=$dist
export ERL_EPMD_PORT=$epmd_port
export ERL_EPMD_ADDRESS=127.0.0.1
# rabbitmqctl reaches this broker with the same environment.
export -p | grep -E ' (HOME|RABBITMQ_[A-Z_]*|ERL_EPMD_[A-Z]*)=' > env

listening() { # port
  local hex; hex=$(printf ':%04X ' "$1")
  grep -q "$hex.* 0A " /proc/net/tcp
}

# A restart of the same broker finds its epmd still running.
if [ -f epmd.pid ] && kill -0 "$(cat epmd.pid)" 2>/dev/null; then
  epmd_pid=$(cat epmd.pid)
else
  epmd -address 127.0.0.1 -port "$epmd_port" > /dev/null 2>&1 &
  epmd_pid=$!
  echo "$epmd_pid" > epmd.pid
fi
rm -f broker.pid log/broker.log
/usr/lib/rabbitmq/bin/rabbitmq-server > log/stdout 2>&1 &
script=$!

# The broker itself is the script's child; its pid file names it.
beam_pid() { cat broker.pid 2>/dev/null || true; }
stop_all() { kill $(beam_pid) "$epmd_pid" 2>/dev/null || true; }
# Watches the owner: when the test program ends, however it ends, so do we.
( while kill -0 "$owner" 2>/dev/null; do sleep 1; done; stop_all ) > /dev/null 2>&1 &

for _ in $(seq 1 600); do
  if ! kill -0 "$script" 2>/dev/null; then echo "broker exited; see $dir/log" >&2; stop_all; exit 1; fi
  if grep -qs "Server startup complete" log/broker.log log/stdout && listening "$amqp" && listening "$amqps"; then
    echo "ready $(beam_pid) $epmd_pid"
    exit 0
  fi
  sleep 0.1
done
echo "broker did not start in 60 s; see $dir/log" >&2
stop_all
exit 1
