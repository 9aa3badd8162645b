# Starts and stops a whole system: bus, Config, radio simulator, Kova. Sourced, not run.
#
# stack_start DIRECTORY BINARIES [serial]   logs, ZELT_ROOT and `env` go to DIRECTORY
# stack_stop                                stops what was started, youngest first, by process id

stack_pids=()

# stack_wait SECONDS WHAT COMMAND...: waits until COMMAND succeeds.
stack_wait() {
  local deadline=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    if ((SECONDS >= deadline)); then
      echo "gave up waiting for $what" >&2
      return 1
    fi
    sleep 0.05
  done
}

# stack_spawn NAME COMMAND...: in the background, output to NAME.log; sets stack_pid.
# In a process group of its own, so that Ctrl-C reaches this script only and the order of the stop
# is ours.
stack_spawn() {
  local name=$1
  shift
  set -m
  "$@" </dev/null >>"$STACK/$name.log" 2>&1 &
  stack_pid=$!
  set +m
  disown "$stack_pid"
  stack_pids=("$stack_pid" "${stack_pids[@]}")
}

stack_gone() { ! kill -0 "$1" 2>/dev/null; }

# stack_end PID: asks it to stop, and kills it when it has not within 10 s.
stack_end() {
  kill -TERM "$1" 2>/dev/null || return 0
  stack_wait 10 "process $1 to stop" stack_gone "$1" || kill -KILL "$1" 2>/dev/null || true
}

stack_stop() {
  local pid
  for pid in "${stack_pids[@]}"; do stack_end "$pid"; done
  stack_pids=()
  [ -z "${STACK_SOCKETS:-}" ] || rm -rf "$STACK_SOCKETS"
}

stack_radio() {
  local where=(--listen "127.0.0.1:${RADIO_PORT:-0}" --port-file "$STACK/port")
  [ "$stack_link" = tcp ] || where=(--pty "$ZELT_ROOT/dev/ttyS2")
  rm -f "$STACK/port"
  stack_spawn radiosim "$BIN/radiosim" "${where[@]}" --control "$RADIO_CONTROL" \
    --store "$STACK/radio-files"
  radio_pid=$stack_pid
  if [ "$stack_link" = tcp ]; then
    stack_wait 10 'the radio to listen' test -s "$STACK/port"
    RADIO_PORT=$(cat "$STACK/port")
  else
    stack_wait 10 'the radio to open its serial line' test -e "$ZELT_ROOT/dev/ttyS2"
  fi
}

stack_kova() {
  stack_spawn kova env ZELT_LOG_LEVEL="${ZELT_LOG_LEVEL:-7}" "$BIN/kova"
  kova_pid=$stack_pid
  stack_wait 15 'Kova to be ready' stack_ready
}

# Keeps the link up from now on.
stack_keeper() { stack_spawn keeper "$BIN/zelt-keeper"; }

stack_ready() { [ "$("$BIN/kova" --get-state)" = READY ]; }

stack_start() {
  STACK=$1
  BIN=$2
  stack_link=${3:-tcp}
  rm -rf "$STACK"
  mkdir -p "$STACK/root/dev" "$STACK/root/etc/zelt" "$STACK/root/var/lib/zelt"
  # Sockets have short paths only, so they do not go below the checkout.
  STACK_SOCKETS=$(mktemp -d "${TMPDIR:-/tmp}/kova.XXXXXX")
  cp service/config/config.toml "$STACK/root/etc/zelt/config.toml"
  echo 'MODEL=OTTR' >"$STACK/root/etc/zelt/target-attributes"
  printf 'VERSION=%s\nBUILD_NUMBER=1\n' 0.1.0 >"$STACK/root/etc/zelt/version"
  export ZELT_BUS_ADDRESS="unix:path=$STACK_SOCKETS/bus"
  export ZELT_ROOT="$STACK/root"
  export RADIO_CONTROL="$STACK_SOCKETS/radio"
  printf 'export %s\n' "ZELT_BUS_ADDRESS='$ZELT_BUS_ADDRESS'" "ZELT_ROOT='$ZELT_ROOT'" \
    "RADIO_CONTROL='$RADIO_CONTROL'" "PATH='$BIN':\"\$PATH\"" >"$STACK/env"

  stack_spawn bus dbus-daemon --config-file=packaging/zelt-bus.conf \
    --address="$ZELT_BUS_ADDRESS" --nofork --nopidfile
  stack_wait 10 'the bus' "$BIN/zeltcli" services  # its socket is there before it listens
  stack_spawn config env ZELT_LOG_LEVEL="${ZELT_LOG_LEVEL:-7}" "$BIN/zelt-config"
  config_pid=$stack_pid
  stack_radio
  stack_kova
}
