# Shared by ./run, ./test and the tools. Sourced by bash, never run.

morvik_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# fail STATUS LINE...: prints a message on standard error and exits.
fail() {
  local status=$1
  shift
  printf '%s\n' "$@" >&2
  exit "$status"
}

# quietly LABEL COMMAND...: runs the command without its output. A long command reports its progress on standard error;
# a failed one shows its whole output. Returns the command's status.
quietly() {
  local label=$1 log line read_status status started=$SECONDS told=$SECONDS
  shift
  log=$(mktemp)
  local output
  exec {output}< <("$@" 2>&1 </dev/null)
  local pid=$!
  while true; do
    line=
    read_status=0
    IFS= read -r -t 10 -u "$output" line || read_status=$?
    if ((read_status == 0)); then
      printf '%s\n' "$line" >>"$log"
    else
      printf '%s' "$line" >>"$log"
      # Above 128: ten seconds have passed; otherwise it is the end of the output.
      ((read_status > 128)) || break
    fi
    if ((SECONDS - told >= 10)); then
      told=$SECONDS
      line=$(tail -n 1 "$log")
      # For a build step, its number and the file's name are enough.
      [[ $line =~ ^\[[0-9]+/[0-9]+\] ]] && line="${line%% *} ${line##*/}"
      printf '%s: %d s ... %.80s\n' "$label" $((SECONDS - started)) "$line" >&2
    fi
  done
  exec {output}<&-
  status=0
  wait "$pid" || status=$?
  if ((status != 0)); then
    cat "$log" >&2
    printf '%s: failed with status %d.\n' "$label" "$status" >&2
  fi
  rm -f "$log"
  return "$status"
}
