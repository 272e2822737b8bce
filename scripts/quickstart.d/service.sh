# shellcheck shell=bash
# The service of a round: built, given a profile, started and stopped. Sourced by scripts/quickstart.

build_programs() {
  step="installing packages"
  scripts/install-packages build run

  step="building"
  echo "Building into $build (some minutes the first time; $run/build.log shows how far it is)"
  mkdir -p "$run/conf" "$run/logs" "$run/recordings" "$run/reports"
  launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S . -B "$build" -G Ninja -DKESTREL_BUILD_TESTS=OFF "${launcher[@]}" \
    -DKESTREL_CONFIG_PARENT_DIR="$run/conf/" -DKESTREL_LOG_PARENT_DIR="$run/logs/" >"$run/build.log" 2>&1 ||
    { cat "$run/build.log" >&2 && exit 1; }
  cmake --build "$build" >>"$run/build.log" 2>&1 || { tail -n 40 "$run/build.log" >&2 && exit 1; }
}

# deck_section is put into the profile as it is.
write_profile() {
  step="writing the profile"
  # Job numbers begin anew with each service, and a job's log is appended to.
  rm -f "$run"/logs/capture_*.log
  port=$(free_port 5112)
  # Even ports only, as RTP senders like them; taken at random so that two rounds do not meet.
  stream_port=$((20000 + (RANDOM % 10000) * 2))
  cat >"$run/conf/KestrelManagerProfile.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<!-- The profile of the quickstart's service. Every setting is an attribute of its section. -->
<KestrelManager>
  <!-- Where the service logs (the day is put into the name) and from which level on: 0 Debug ... 4 Fatal. -->
  <Logging LOG_FILENAME="$run/logs/KestrelManager.log" LOG_LEVEL="1"/>
  <!-- The TCP port for requests, and how many connections are served at once. -->
  <WebServicesComm PORT_NUMBER="$port" NUMBER_OF_SIMULTANEOUS_HANDLES="5"/>
  <!-- The capture worker with its own options, and where it logs. Quoted, since a path may have blanks. -->
  <Capture EXE="&quot;$build/bin/kestrelCapture&quot; -encoders &quot;$run/conf/encoders.xml&quot;"
    LOG_DIR="$run/logs/"/>
  <!-- The verifier of finished files, and where its reports go. -->
  <Verifier EXE="&quot;$build/bin/flowScope&quot;" REPORT_DIR="$run/reports/"/>
  <!-- Audio groups that a property list always shows. -->
  <MPEGProperties NUM_AUDIOS="1"/>
$deck_section  <!-- A worker that says nothing for this long is no longer watched. -->
  <Job HEARTBEAT_TIMEOUT_SECS="120"/>
</KestrelManager>
XML
  cat >"$run/conf/encoders.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<!-- Which stream an encoder sends: the address by which requests name it, and where its datagrams go. -->
<Encoders>
  <Encoder CONTROL_ADDRESS="127.0.0.1" STREAM_ADDRESS="127.0.0.1" PORT="$stream_port"/>
</Encoders>
XML
}

start_service() {
  step="starting the service"
  "$build/bin/KestrelManager" debug >"$run/service.out" 2>&1 &
  service_pid=$!
  for ((i = 0; i < 100; i++)); do
    kill -0 "$service_pid" 2>/dev/null || fail "the service ended at once"
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then break; fi
    sleep 0.1
  done
  [[ $(ask PING_SERVICE) == "TRUE - ALIVE" ]] || fail "the service on port $port does not answer PING_SERVICE"
  echo "Service   up on port $port (process $service_pid)"
}

# Shows the state of the job guid until it ends; fails unless it is COMPLETE. More of the line: what note prints.
follow_job() { # SECONDS NOTE
  local i bytes line shown=
  state=
  for ((i = 0; i < $1 * 2; i++)); do
    state=$(ask "JOB_STATUS,$guid")
    state=${state#TRUE - }
    bytes=$(stat -c %s "$recording" 2>/dev/null || echo 0)
    line=$(printf 'Status    %-11s %5d.%d s %8d kB  %s' "$state" $((i / 2)) $((i % 2 * 5)) $((bytes / 1000)) "$("$2")")
    if [[ -t 1 ]]; then
      printf '\r%-78s' "$line"
    elif ((i % 4 == 0)) || [[ $state != "$shown" ]]; then
      echo "$line"
    fi
    shown=$state
    [[ $state == QUEUED || $state == IN_PROGRESS ]] || break
    sleep 0.5
  done
  if [[ -t 1 ]]; then echo; fi

  echo
  echo "State     $state"
  echo "Results   $(ask "JOB_RESULTS,$guid")"
  echo "Job log   $capture_log"
  echo "Last log entries"
  ask "CAPTURE,JOB_LAST_LOG_ENTRIES,$guid" | tr '\t' '\n' | sed '/^$/d' | tail -n 8 | sed 's/^/  /'
  [[ $state == COMPLETE ]] || fail "the job ended as $state"
}

# The first line of what ffprobe says; sed reads on, so that ffprobe never writes into a closed pipe.
probe() { ffprobe -v error "$@" -of default=noprint_wrappers=1:nokey=1 "$recording" | sed -n 1p; }

first_timecode() {
  local timecode
  timecode=$(probe -select_streams v:0 -read_intervals %+1 -show_entries frame_tags=timecode || true)
  [[ -n $timecode ]] || timecode=$(probe -select_streams v:0 -show_entries stream_tags=timecode || true)
  printf '%s\n' "$timecode"
}

stop_service() {
  step="stopping the service"
  local stopped
  stopped=$("$build/bin/KestrelManager" stop)
  [[ $stopped == TRUE* ]] || fail "stop answered: $stopped"
  wait "$service_pid" || fail "the service ended with status $?"
  service_pid=
  echo
  echo "Stopped   $stopped"
}

show_places() {
  echo "Recording $recording"
  echo "Reports   $run/reports/"
  echo "Profile   $run/conf/KestrelManagerProfile.xml"
  echo "Logs      $run/logs/"
  echo "Programs  $build/bin/"
}
