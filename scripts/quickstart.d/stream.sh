# shellcheck shell=bash
# A timed capture from a synthetic encoder, and the verification of the recording. Sourced by scripts/quickstart.

start_encoder() {
  step="starting the encoder"
  ffmpeg -hide_banner -loglevel warning -nostdin -re \
    -f lavfi -i testsrc2=size=720x576:rate=25 -f lavfi -i sine=frequency=1000:sample_rate=48000 \
    -c:v mpeg2video -b:v 4M -maxrate 4M -bufsize 1835k -g 12 -bf 2 -timecode 10:00:00:00 -c:a ac3 -b:a 192k -ac 2 \
    -f mpegts -muxrate 5M "udp://127.0.0.1:$stream_port?pkt_size=1316" >"$run/encoder.log" 2>&1 &
  encoder_pid=$!
  echo "Encoder   MPEG-2 720x576 25 fps + AC-3 to udp://127.0.0.1:$stream_port (process $encoder_pid)"
}

show_lines_to_try() {
  local try_guid try_file
  try_guid=$(date +%H%M%S)
  try_file=$run/recordings/manual_$try_guid.ts
  disown -a
  cat <<TEXT

The service and the encoder stay up. Lines to try:

  printf 'PING_SERVICE' | nc -N 127.0.0.1 $port
  printf 'CAPTURE,JOB_BEGIN,$try_guid,CAPTURE_MANUAL_JOB,Filename=$try_file,EncoderIp=127.0.0.1' | nc -N 127.0.0.1 $port
  printf 'JOB_STATUS,$try_guid' | nc -N 127.0.0.1 $port
  printf 'CAPTURE,JOB_LAST_LOG_ENTRIES,$try_guid' | nc -N 127.0.0.1 $port
  printf 'CAPTURE,JOB_ABORT,$try_guid' | nc -N 127.0.0.1 $port

and some seconds later, when the recording has ended:

  printf 'JOB_RESULTS,$try_guid' | nc -N 127.0.0.1 $port
  printf 'GET_MPEG_PROPERTIES,JOB_BEGIN,${try_guid}b,$try_file,QUICK' | nc -N 127.0.0.1 $port

To end it:

  $build/bin/KestrelManager stop && kill $encoder_pid

A recording that still runs goes on without the service: abort it first (the line with JOB_ABORT).
TEXT
}

no_note() { :; }

capture_stream() {
  step="capturing"
  guid=$(tr -d '-' </proc/sys/kernel/random/uuid)
  recording=$run/recordings/$(date +%Y%m%d_%H%M%S)_$guid.ts
  request="CAPTURE,JOB_BEGIN,$guid,CAPTURE_TIMED_JOB,Filename=$recording,EncoderIp=127.0.0.1,Duration=00:00:10:00"
  echo "Request   $request"
  answer=$(ask "$request")
  echo "Answer    $answer"
  [[ $answer == TRUE* ]] || fail "the request was refused"
  capture_log=$(ask "CAPTURE,JOB_LOGFILENAME,$guid")
  capture_log=${capture_log#TRUE - }
  follow_job 45 no_note
}

check_stream_recording() {
  step="checking the recording"
  video=$(probe -select_streams v:0 -show_entries stream=codec_name)
  size=$(probe -select_streams v:0 -show_entries stream=width)x$(probe -select_streams v:0 -show_entries stream=height)
  rate=$(probe -select_streams v:0 -show_entries stream=r_frame_rate)
  frames=$(probe -select_streams v:0 -count_packets -show_entries stream=nb_read_packets)
  audio=$(probe -select_streams a:0 -show_entries stream=codec_name)
  timecode=$(first_timecode)
  echo
  echo "          sent                recorded (ffprobe)"
  printf 'video     %-19s %s\n' mpeg2video "$video"
  printf 'size      %-19s %s\n' 720x576 "$size"
  printf 'rate      %-19s %s\n' 25/1 "$rate"
  printf 'audio     %-19s %s\n' ac3 "$audio"
  printf 'frames    %-19s %s\n' "250 (10 s)" "$frames"
  [[ -z $timecode ]] || printf 'timecode  %-19s %s\n' "from 10:00:00:00" "$timecode"
  [[ $video == mpeg2video && $size == 720x576 && $rate == 25/1 && $audio == ac3 && $frames == 250 ]] ||
    fail "the recording is not what was sent"
}

verify_recording() {
  step="verifying the recording"
  guid=$(tr -d '-' </proc/sys/kernel/random/uuid)
  echo
  echo "Properties, by the verifier"
  properties=$(ask "GET_MPEG_PROPERTIES,JOB_BEGIN,$guid,$recording,ALL,BLOCK")
  [[ $properties == "TRUE - "* ]] || fail "the verification answered: $properties"
  printf '%s' "${properties#TRUE - }" | tr '\t' '\n' | sed '/^$/d; s/^/  /' | pr -2 -t -w 80
  [[ $properties == *"RESOLUTION=720x576"* && $properties == *"VIDEOFRAMERATE=25"* ]] ||
    fail "the verifier saw something else than what was sent"
  verdict=$(ask "GET_MPEG_PROPERTIES,JOB_BEGIN,$guid,$recording,VALIDATION_ERRORS,BLOCK")
  [[ $verdict == TRUE* ]] || fail "the verification answered: $verdict"
  echo "Verdict against the delivery rules (the test picture is not made to them)"
  if [[ $verdict == TRUE ]]; then
    echo "  passed"
  else
    printf '%s' "${verdict#TRUE - }" | tr '\t' '\n' | sed "/^$/d; s#$run/recordings/##; s/^/  /"
  fi
}

stop_encoder() {
  kill "$encoder_pid" && { wait "$encoder_pid" 2>/dev/null || true; }
  encoder_pid=
}
