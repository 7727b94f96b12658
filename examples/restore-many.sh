#!/usr/bin/env bash
# Tags many files, starts their restoration and waits for it:
#
#   restore-many.sh READS < LIST
#
# Each line of LIST is a local file, a tab and its backing path. Exits with 0 when
# every file is whole, 1 when one is not, after all have been tried. A file whose
# progress stands still for a minute has been given up by the filter.
set -u
declare -A shown since # the last progress of a file, and when it was new
reads=${1:?usage: restore-many.sh READS < LIST}
failures=0
failed() {
  echo "$1: $2" >&2
  failures=$((failures + 1))
}

waiting=()
while IFS=$'\t' read -r file backing || [ -n "$file" ]; do
  [ -n "$file" ] || continue
  if ! output=$(zan_restore "$file" "$backing" simple "$reads"); then
    failed "$file" "not set up: $output"
  elif ! output=$(zan_restore --startAggressiveRestore "$reads" "$file"); then
    failed "$file" "not started: $output"
  else
    waiting+=("$file")
  fi
done

while [ "${#waiting[@]}" -gt 0 ]; do
  unfinished=()
  for file in "${waiting[@]}"; do
    if ! output=$(zan_restore --progress "$file"); then
      failed "$file" "$output"
    elif [[ $output =~ ^progress:\ (0x[0-9a-f]+)\ of\ (0x[0-9a-f]+)$ ]] &&
      [ "${BASH_REMATCH[1]}" = "${BASH_REMATCH[2]}" ]; then
      echo "$file: whole"
    elif [ "$output" != "${shown[$file]-}" ]; then
      shown[$file]=$output
      since[$file]=$SECONDS
      unfinished+=("$file")
    elif [ $((SECONDS - since[$file])) -lt 60 ]; then
      unfinished+=("$file")
    else
      failed "$file" "stands still: $output"
    fi
  done
  waiting=("${unfinished[@]}")
  [ "${#waiting[@]}" -eq 0 ] || sleep 0.2
done
exit $((failures > 0))
