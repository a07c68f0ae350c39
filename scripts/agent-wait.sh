# Sourced by the demonstration and the end-to-end benchmark: waiting for a FIB agent's line.
#
# waitLine FILE PID PATTERN: returns 0 once FILE has a line matching PATTERN, 1 once the process
# PID has ended without writing one. It sleeps on the file (tail follows it through inotify)
# rather than looking again every few milliseconds: on a two-core machine a look that starts a
# grep and a sleep fifty times a second took a fifth of the CPU from the very processes whose
# time was being measured.
waitLine() {
  local file=$1 pid=$2 pattern=$3
  grep -q -m1 -- "$pattern" < <(exec tail -n +1 -f --pid="$pid" "$file" 2>/dev/null) && return 0
  grep -q -- "$pattern" "$file"  # the line may have come just before the agent ended
}
