# shellcheck shell=bash
# What a round starts, asks and ends. Sourced by scripts/quickstart, which sets build, run, mode and serve.

service_pid=
encoder_pid=
deck_pid=
guid=
port=
step="starting"

show_tail() { # FILE: the last lines of a log, if there are any
  if [[ -s ${1:-} ]]; then
    echo "--- last lines of $1"
    tail -n 15 "$1" | tr -d '\r'
  fi
}

service_log() { # the newest one
  local newest='' log
  for log in "$run"/logs/KestrelManager-*.log; do
    if [[ -e $log && (-z $newest || $log -nt $newest) ]]; then newest=$log; fi
  done
  printf '%s\n' "$newest"
}

running() { # PROGRAM...: the processes of programs of this build, also of ones that have been built anew since
  local process program exe
  for process in /proc/[0-9]*; do
    exe=$(readlink "$process/exe" 2>/dev/null) || continue
    for program in "$@"; do
      if [[ ${exe% (deleted)} == "$build/bin/$program" ]]; then echo "${process#/proc/}"; fi
    done
  done
}

# Workers that run, but for those of an earlier round: a recording outlives its service, and those are not ours.
earlier_workers=
workers() {
  local pid
  for pid in $(running kestrelCapture flowScope); do
    if [[ " $earlier_workers " != *" $pid "* ]]; then echo "$pid"; fi
  done
}

none_left() { # SECONDS: waits until no worker is left; false when the time is over first
  local i
  for ((i = 0; i < $1 * 10; i++)); do
    if [[ -z $(workers) ]]; then return 0; fi
    sleep 0.1
  done
  [[ -z $(workers) ]]
}

# A worker goes on recording when its service is stopped, so it is ended first, and as a client would do it: the job
# is aborted, and the worker closes its file. Only one that does not is signalled.
#
# (A bare "return" would give the status that led to the exit, since this runs in the trap.)
end_job() {
  local pid
  if [[ -n $guid && -n $port ]]; then
    printf 'CAPTURE,JOB_ABORT,%s' "$guid" | timeout 5 nc -N 127.0.0.1 "$port" >/dev/null 2>&1 || true
    sleep 0.3 # a worker that was just being started is there by now
  fi
  if none_left 10; then return 0; fi
  for pid in $(workers); do kill "$pid" 2>/dev/null || true; done
  if none_left 5; then return 0; fi
  for pid in $(workers); do kill -KILL "$pid" 2>/dev/null || true; done
}

finish() {
  local status=$?
  trap - EXIT
  trap '' INT TERM # what has begun to end is ended
  if ((status != 0)); then
    {
      echo
      echo "quickstart FAILED while $step (status $status)"
      show_tail "$(service_log)"
      show_tail "${capture_log:-}"
      show_tail "$run/service.out"
      show_tail "$run/encoder.log"
      if [[ $mode == deck ]]; then show_tail "$run/deck.out"; fi
    } >&2
  fi
  if ((status != 0)); then end_job; fi
  if ((status != 0)) || ! $serve; then
    for pid in $encoder_pid $deck_pid $service_pid; do
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    done
  fi
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "quickstart: $*" >&2
  exit 1
}

# One request line in, one answer line out.
ask() {
  local answer
  answer=$(printf '%s' "$1" | timeout 40 nc -N 127.0.0.1 "$port") || true
  [[ -n $answer ]] || fail "no answer to: $1"
  printf '%s\n' "$answer"
}

free_port() { # FIRST: the first TCP port from FIRST on that nothing listens on
  local candidate=$1
  while (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; do
    candidate=$((candidate + 1))
  done
  printf '%s\n' "$candidate"
}
