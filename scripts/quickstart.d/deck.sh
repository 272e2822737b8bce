# shellcheck shell=bash
# A capture from tape: a simulated deck whose tape is sent as an encoder would while it plays. Sourced by
# scripts/quickstart.

deck_link=$run/deck1
tape=$run/tape.ts
mark_in=10:00:15:00
mark_out=10:00:24:24 # the last frame that is recorded
mark_frames=250

deck_profile_section() {
  cat <<XML
  <!-- The deck-control process with the names of its ports, and its log. -->
  <DeckCtrl EXE="&quot;$build/bin/kestrelDeckCtrl&quot; -ports &quot;$run/conf/deck_ports.xml&quot;"
    LOG_FILE="$run/logs/deck.log" LOG_LEVEL="1"/>
XML
}

write_port_map() {
  cat >"$run/conf/deck_ports.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<!-- Which serial port a deck hangs on, by the name that requests use. -->
<DeckPorts>
  <Port NAME="COM1" DEVICE="$deck_link"/>
</DeckPorts>
XML
}

make_tape() {
  step="making the tape"
  echo "Tape      60 s of MPEG-2 720x576 25 fps, timecode from 10:00:00:00"
  ffmpeg -hide_banner -loglevel warning -nostdin -y -f lavfi -i testsrc2=size=720x576:rate=25 \
    -f lavfi -i sine=frequency=1000:sample_rate=48000 -t 60 -c:v mpeg2video -b:v 4M -maxrate 4M -bufsize 1835k \
    -g 25 -timecode 10:00:00:00 -c:a ac3 -b:a 192k -ac 2 -f mpegts -muxrate 5M "$tape" >"$run/encoder.log" 2>&1
}

start_deck() {
  step="starting the deck"
  "$build/bin/deckSimulator" --link "$deck_link" --rate 25 --start 10:00:00:00 --length 60 \
    --tape "$tape" --send "127.0.0.1:$stream_port" </dev/null >"$run/deck.out" 2>&1 &
  deck_pid=$!
  local i
  for ((i = 0; i < 100; i++)); do
    kill -0 "$deck_pid" 2>/dev/null || fail "the deck simulator ended at once: $(cat "$run/deck.out")"
    if [[ -e $deck_link ]]; then break; fi
    sleep 0.1
  done
  echo "Deck      on COM1, a pseudo-terminal at $deck_link (process $deck_pid)"
}

deck_time() {
  local answer
  answer=$(ask "VTR_CURRENT_TIME,COM1")
  echo "deck ${answer#TRUE - }"
}

try_deck() {
  step="asking the deck"
  local request answer
  for request in VTR_CURRENT_TIME,COM1 VTR_CMD,COM1,0,FastForward VTR_CMD,COM1,0,Pause VTR_SEEKING,COM1; do
    answer=$(ask "$request")
    printf 'Request   %-28s %s\n' "$request" "$answer"
    [[ $answer == TRUE* ]] || fail "the deck refused $request"
  done
}

capture_tape() {
  step="capturing from tape"
  guid=$(tr -d '-' </proc/sys/kernel/random/uuid)
  recording=$run/recordings/$(date +%Y%m%d_%H%M%S)_$guid.ts
  local request="CAPTURE,JOB_BEGIN,$guid,CAPTURE_VTR_JOB,Filename=$recording,EncoderIp=127.0.0.1,VTR_Com_Port=COM1"
  request+=",VTR_UseInternalCue=TRUE,MarkInTime=$mark_in,MarkOutTime=$mark_out"
  echo "Request   $request"
  local answer
  answer=$(ask "$request")
  echo "Answer    $answer"
  [[ $answer == TRUE* ]] || fail "the request was refused"
  capture_log=$(ask "CAPTURE,JOB_LOGFILENAME,$guid")
  capture_log=${capture_log#TRUE - }
  follow_job 90 deck_time
}

check_tape_recording() {
  step="checking the recording"
  local frames timecode last
  frames=$(probe -select_streams v:0 -count_packets -show_entries stream=nb_read_packets)
  timecode=$(first_timecode)
  last=$(timecode_after "$timecode" $((frames - 1)))
  echo
  echo "            asked for           recorded (ffprobe)"
  printf 'first frame %-19s %s\n' "$mark_in" "$timecode"
  printf 'last frame  %-19s %s\n' "$mark_out" "$last"
  printf 'frames      %-19s %s\n' "$mark_frames" "$frames"
  [[ $timecode == "$mark_in" && $last == "$mark_out" && $frames == "$mark_frames" ]] ||
    fail "the recording is not what was on the tape between the marks"
}

timecode_after() { # HH:MM:SS:FF FRAMES: at 25 frames a second
  local IFS=: h m s f total
  read -r h m s f <<<"$1"
  total=$((((10#$h * 60 + 10#$m) * 60 + 10#$s) * 25 + 10#$f + $2))
  printf '%02d:%02d:%02d:%02d\n' $((total / 90000)) $((total / 1500 % 60)) $((total / 25 % 60)) $((total % 25))
}

show_deck_log() {
  echo
  echo "What the deck did"
  sed 's/^/  /' "$run/deck.out" | tail -n 14
}

stop_deck() {
  kill "$deck_pid" && { wait "$deck_pid" 2>/dev/null || true; }
  deck_pid=
}
