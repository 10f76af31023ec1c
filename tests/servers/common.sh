# Helpers shared by the server scripts (sourced, not run).
#
# Every server runs in the foreground of its own session (setsid), so its
# pid is also its process group; stopping kills the whole group, workers and
# per-connection children included. Pid files live in $DIR/run/*.pid.
#
# Exit codes of the "start" commands, read by tests/support/real_servers.cc:
#   0 ready, 1 failed to start, 2 usage, 4 a server binary is missing,
#   5 not run as root (the servers drop to nobody and need chown'd dirs).

export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH

readonly EXIT_FAILED=1 EXIT_USAGE=2 EXIT_MISSING=4 EXIT_NOT_ROOT=5
readonly READY_TIMEOUT_TENTHS=150   # 15 s for a server to bind its ports
readonly STOP_TIMEOUT_TENTHS=20     # 2 s between TERM and KILL

SERVERS_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

die() { echo "$1" >&2; exit "${2:-$EXIT_FAILED}"; }

# need_binaries PATH...: exits with EXIT_MISSING naming the first one absent.
need_binaries() {
  local b
  for b in "$@"; do
    if [[ $b == /* ]]; then
      [ -e "$b" ] || die "missing: $b" "$EXIT_MISSING"
    else
      command -v "$b" > /dev/null 2>&1 || die "missing: $b" "$EXIT_MISSING"
    fi
  done
}

need_root() {
  [ "$(id -u)" -eq 0 ] || die "must run as root" "$EXIT_NOT_ROOT"
}

# Whether the loopback interface has ::1.
have_ipv6() {
  grep -qs '^0\{31\}1 .* lo$' /proc/net/if_inet6
}

# prepare_dir DIR: the daemons run as nobody and must reach everything
# below DIR, so it is world-searchable.
prepare_dir() {
  mkdir -p "$1/run" && chmod 755 "$1" || die "cannot prepare $1"
  if have_ipv6; then echo yes > "$1/ipv6"; else echo no > "$1/ipv6"; fi
}

# spawn NAME LOG CMD...: runs CMD as a new session leader with its output in
# LOG, records its pid in $DIR/run/NAME.pid. stdin is /dev/null unless the
# caller redirects it.
spawn() {
  local name=$1 log=$2
  shift 2
  setsid "$@" >> "$log" 2>&1 &
  echo $! > "$DIR/run/$name.pid"
}

pid_of() { cat "$DIR/run/$1.pid" 2>/dev/null; }

# Whether any live (non-zombie) process is in process group $1. Zombies are
# ignored: whoever adopted them reaps them in its own time, and they hold
# no ports.
group_alive() {
  local stat rest state pgrp f
  for f in /proc/[0-9]*/stat; do
    { read -r stat < "$f"; } 2> /dev/null || continue
    rest=${stat##*) }
    read -r state _ pgrp _ <<< "$rest"
    if [ "$pgrp" = "$1" ] && [ "$state" != Z ] && [ "$state" != X ]; then
      return 0
    fi
  done
  return 1
}

process_alive() {
  local state
  [ -n "$1" ] || return 1
  { read -r state < "/proc/$1/stat"; } 2> /dev/null || return 1
  state=${state##*) }
  [ "${state%% *}" != Z ]
}

show_log() {
  [ -s "$1" ] && { echo "--- $1:" >&2; tail -n 20 "$1" >&2; }
  return 0
}

# wait_socket NAME PROTO PORT LOG: waits until the process recorded as NAME
# owns a listening socket of PROTO (tcp|udp) on PORT. Fails early when the
# process has died.
wait_socket() {
  local name=$1 proto=$2 port=$3 log=$4 pid flag i
  pid=$(pid_of "$name")
  [ "$proto" = tcp ] && flag=-ltnp || flag=-lunp
  for ((i = 0; i < READY_TIMEOUT_TENTHS; i++)); do
    if ! process_alive "$pid"; then
      echo "$name exited during start-up" >&2
      show_log "$log"
      return 1
    fi
    if ss -H "$flag" "sport = :$port" 2> /dev/null | grep -q "pid=$pid,"; then
      return 0
    fi
    sleep 0.1
  done
  echo "$name did not bind $proto port $port in time" >&2
  show_log "$log"
  return 1
}

# wait_tcp_answer HOST PORT: a TCP connect to HOST:PORT succeeds.
wait_tcp_answer() {
  local i
  for ((i = 0; i < READY_TIMEOUT_TENTHS; i++)); do
    if (exec 3<> "/dev/tcp/$1/$2") 2> /dev/null; then return 0; fi
    sleep 0.1
  done
  echo "no answer on $1 port $2" >&2
  return 1
}

# start_watchdog SCRIPT: when QUARRY_SERVER_OWNER names a pid, a detached
# watcher runs "SCRIPT stop DIR" once that process is gone, so a crashed or
# killed test leaves no server behind, and then removes
# QUARRY_SERVER_REMOVE_DIR (the owner's scratch directory) if set. It ends by
# itself once the pid files are gone (a normal stop).
start_watchdog() {
  local owner=${QUARRY_SERVER_OWNER:-}
  [ -n "$owner" ] || return 0
  setsid bash -c '
      owner=$1 dir=$2 script=$3 scratch=$4
      while compgen -G "$dir/run/*.pid" > /dev/null; do
        if ! kill -0 "$owner" 2> /dev/null; then
          "$script" stop "$dir"
          [ -n "$scratch" ] && rm -rf -- "$scratch"
          exit 0
        fi
        sleep 1
      done' quarry-watchdog "$owner" "$DIR" "$1" "${QUARRY_SERVER_REMOVE_DIR:-}" \
    < /dev/null > /dev/null 2>&1 &
}

# stop_all: STOP_SIGNAL (TERM unless the script set another) to every
# recorded process group, KILL what is left after the grace time, then drop
# the pid files.
stop_all() {
  local sig=${STOP_SIGNAL:-TERM}
  local f pid pids=() i alive
  for f in "$DIR"/run/*.pid; do
    [ -f "$f" ] || continue
    pid=$(< "$f")
    [[ $pid =~ ^[0-9]+$ ]] && [ "$pid" -gt 1 ] || continue
    pids+=("$pid")
    kill "-$sig" -- "-$pid" 2> /dev/null || kill "-$sig" "$pid" 2> /dev/null
  done
  for ((i = 0; i < STOP_TIMEOUT_TENTHS; i++)); do
    alive=0
    for pid in "${pids[@]}"; do group_alive "$pid" && alive=1; done
    [ "$alive" = 0 ] && break
    sleep 0.1
  done
  for pid in "${pids[@]}"; do
    group_alive "$pid" && kill -KILL -- "-$pid" 2> /dev/null
  done
  rm -f "$DIR"/run/*.pid
  return 0
}

# fail_start: stops whatever did start, then exits with EXIT_FAILED.
fail_start() {
  stop_all
  exit "$EXIT_FAILED"
}

# Common command line: SCRIPT start DIR ARGS... | SCRIPT stop DIR.
# Sets CMD and DIR and shifts them off into ARGS.
parse_command() {
  CMD=${1:-}
  DIR=${2:-}
  [ -n "$CMD" ] && [ -n "$DIR" ] || die "usage: $0 start|stop DIR ..." "$EXIT_USAGE"
  shift 2
  ARGS=("$@")
  if [ "$CMD" = stop ]; then stop_all; exit 0; fi
  [ "$CMD" = start ] || die "unknown command $CMD" "$EXIT_USAGE"
}

# port_arg VALUE NAME: VALUE must be a port number.
port_arg() {
  [[ ${1:-} =~ ^[0-9]+$ ]] && [ "$1" -ge 1 ] && [ "$1" -le 65535 ] ||
    die "bad or missing $2 port '${1:-}'" "$EXIT_USAGE"
  echo "$1"
}
