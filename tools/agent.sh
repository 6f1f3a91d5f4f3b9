# Sourced by the scripts that start an agent of their own (demo.sh,
# package-check.sh). Needs only bash and ss (iproute2, which deps.sh
# installs; without it the ports in use are simply not skipped).
#
# start_agent TAVIKD [OPTIONS...]
#   Starts TAVIKD (a tavikd in a home of its own) on a free port: one that
#   ss does not show in use for TCP or UDP, chosen at random in
#   20000..59999, and another when the agent finds it taken after all.
#   Sets AGENT_PORT and prints the agent's start-up output. When the agent
#   cannot start, says why (its output and the end of its log) on standard
#   error and returns 1. AGENT_LAUNCHER, when set, is a command put in
#   front of TAVIKD (split into words).
start_agent() {
  local program=$1 home out used port status attempt
  shift
  home=$(dirname "$program")
  out=$(mktemp)
  for attempt in 1 2 3 4 5 6 7 8 9 10; do
    used=" $(ss -Htuln 2>/dev/null | awk '{ n = split($5, a, ":"); printf "%s ", a[n] }') "
    port=$((20000 + RANDOM % 40000))
    [[ $used == *" $port "* ]] && continue
    # The detached daemon keeps its standard output: a file, never a pipe
    # that the caller would wait on.
    status=0
    # shellcheck disable=SC2086
    ${AGENT_LAUNCHER:-} "$program" -p "$port" "$@" >"$out" 2>&1 || status=$?
    if [ "$status" -eq 0 ]; then
      AGENT_PORT=$port
      cat "$out"
      rm -f "$out"
      return 0
    fi
    grep -q "Address already in use" "$out" || break
  done
  {
    echo "error: the agent $program could not start (exit status $status, port $port):"
    sed 's/^/  /' "$out"
    if [ -f "$home/LOG/tvk.log" ]; then
      echo "the end of its log, $home/LOG/tvk.log:"
      tail -n 5 "$home/LOG/tvk.log" | sed 's/^/  /'
    fi
  } >&2
  rm -f "$out"
  return 1
}

# stop_agent HOME: stops the agent whose pid file is in HOME/LOG and waits
# (up to 10 s) until it is gone.
stop_agent() {
  local pidfile=$1/LOG/tavikd.pid pid tries
  [ -f "$pidfile" ] || return 0
  pid=$(cat "$pidfile")
  kill "$pid" 2>/dev/null || return 0
  for tries in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.2
  done
  echo "error: the agent (pid $pid) did not stop within 10 s" >&2
  return 1
}
