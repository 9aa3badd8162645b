# The tour of ./run: sourced when the stack is up. Every step checks what it shows; the first that
# does not hold ends the tour with a status other than 0.

tour_number=0
tour_start=$SECONDS
step() {
  tour_number=$((tour_number + 1))
  printf '\n%s. %s\n' "$tour_number" "$1"
}
held() { printf '   => %s\n' "$1"; }
broken() {
  printf '   BROKEN: %s\n' "$1" >&2
  exit 1
}
# show COMMAND...: prints the command as one would type it, runs it, indents and keeps its output.
show() {
  printf '   $ %s\n' "$(printf '%s ' "${@/#$BIN\//}" | sed 's/ $//')"
  output=$("$@" 2>&1) || broken "status $?: $output"
  [ -z "$output" ] || sed 's/^/     /' <<<"$output"
}
# expect TEXT: the output of the last `show` contains it.
expect() { [[ $output == *"$1"* ]] || broken "expected \"$1\""; }
tool() { show "$BIN/zeltcli" "$@"; }
radio() { show "$BIN/radiosim" ctl "$RADIO_CONTROL" "$@"; }
# listener FILE ARGUMENT...: zeltcli in the background, once it is known to listen.
listener() {
  local file=$1
  shift
  printf '   $ zeltcli %s &\n' "$*"
  "$BIN/zeltcli" "$@" >"$file" 2>&1 9>&- &
  listener_pid=$!
  stack_pids=("$listener_pid" "${stack_pids[@]}")
}
heard() {
  stack_wait 10 "\"$2\" in $1" grep -q -- "$2" "$1" || broken "\"$2\" never came"
  sed 's/^/     /' "$1"
}
link_is() { "$BIN/zeltcli" link status 2>/dev/null | grep -q "$1"; }

cat <<TEXT

   services, zeltcli  <-- D-Bus -->  kova  <-- $link -->  radiosim
   logs: build/stack/*.log
TEXT

step 'The link to the radio comes up'
[ "$link" = serial ] || tool socket set 127.0.0.1 "$RADIO_PORT"
tool link up
stack_wait 10 'the link' link_is CONNECTED || broken 'the link did not come up'
tool link status
expect CONNECTED
held 'handshake done: Kova and the radio know each other'

step 'A camera service asks for the radio software version'
tool request --as Upgrade Kova Kova.RtVersionMsg '{"request":{}}'
expect version
held 'service -> bus -> Kova -> link -> radio, and the same way back to "Upgrade"'

step 'The tool asks for the date and time of the radio'
tool datetime get
held 'answered as a response to the tool'"'"'s request'

step 'A firmware image of 8 MiB goes to the radio'
head -c 8388608 /dev/urandom >"$STACK/image.bin"
printf '   $ zeltcli firmware push image.bin --as radio-firmware.bin\n'
"$BIN/zeltcli" firmware push "$STACK/image.bin" --as radio-firmware.bin --timeout 120 ||
  broken 'the transfer failed'
sent=$(sha256sum <"$STACK/image.bin")
stored=$(sha256sum <"$STACK/radio-files/radio-firmware.bin")
printf '     sent   %s\n     stored %s\n' "${sent%% *}" "${stored%% *}"
[ "$sent" = "$stored" ] || broken 'the radio stored something else'
held 'same SHA-256 on both sides'

step 'The radio asks to write a file; a service grants it'
listener "$STACK/write.txt" subscribe Kova.FileAccessWriteRequest
stack_wait 10 'the subscriber' grep -q subscribed "$STACK/write.txt" || broken 'no subscriber'
radio notify FileAccessWriteRequest '{"file_name":"evidence.log","request_id":7,"file_size":1024}'
heard "$STACK/write.txt" evidence.log
tool send Kova Kova.FileAccessWriteResponse \
  '{"file_name":"evidence.log","request_id":7,"file_size":1024,"local_path":"/data/evidence.log"}'
radio_got() { "$BIN/radiosim" ctl "$RADIO_CONTROL" received 20 | grep -q "$1"; }
# Kova itself answers, without a path, when nobody has granted it for 5 s.
stack_wait 10 'the grant' radio_got /data/evidence.log || broken 'the radio got no grant'
held 'the radio knows where to write'
stack_end "$listener_pid" 2>/dev/null

step 'The camera is docked'
listener "$STACK/dock.txt" subscribe MediaStreamNotification.InputNotification
stack_wait 10 'the subscriber' grep -q subscribed "$STACK/dock.txt" || broken 'no subscriber'
radio notify Docking '{"key":7,"state":"ON"}'
heard "$STACK/dock.txt" '"key": *7'
held 'published to every subscriber, and kept for those who come later'
stack_end "$listener_pid"

step 'The radio is switched off; the link is started again'
printf '   $ kill <radiosim>\n'
stack_end "$radio_pid"
stack_wait 10 'the loss' link_is CONNECTION_IS_LOST || broken 'nobody noticed'
tool link status
stack_radio 9>&-
tool link up
stack_wait 10 'the link' link_is CONNECTED || broken 'the link did not come back'
held 'lost, told, and back after a stop and a start'

step 'Everything stops'
stack_end "$kova_pid"
grep -q 'Kova service SHUTDOWN complete' "$STACK/kova.log" || broken 'Kova did not stop cleanly'
held 'Kova ran what was queued, closed the link and reported itself stopped'

printf '\nThe tour held: %s steps in %s s.\n' "$tour_number" "$((SECONDS - tour_start))"
