# What ./run, ./test and the tools share. Sourced by bash, never run.

morvik_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# fail STATUS LINE...: one message on standard error, then out.
fail() {
  local status=$1
  shift
  printf '%s\n' "$@" >&2
  exit "$status"
}

# quietly LABEL COMMAND...: runs the command without its output. What takes long tells how far it is, on standard
# error; what fails shows all that it wrote. Returns the command's status.
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
      # Above 128 the ten seconds are over; else it is the end of the output.
      ((read_status > 128)) || break
    fi
    if ((SECONDS - told >= 10)); then
      told=$SECONDS
      line=$(tail -n 1 "$log")
      # Of a build's step, its number and the file's name say it all.
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
