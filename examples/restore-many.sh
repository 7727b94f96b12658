#!/usr/bin/env bash
# Tags many files, starts their restoration and waits until they are whole:
#
#   restore-many.sh READS < LIST       # a line: local file, tab, backing path
#   restore-many.sh -0 READS < LIST    # each file and each backing path ends in a zero byte
#
# Can be run again with the same list: a file that has its tag already goes on where it
# was. One that exists without a tag, or with a tag for another backing file, is refused.
# Prints "FILE: whole", and on standard error one line for each failure; on a terminal also
# how far it is, in MB if the filter counts bytes. Exits with 0 when every file is whole, 1
# when one is not, after all have been tried. A file that makes no progress for STALL_SECONDS
# (60) counts as a failure and is no longer waited for; its restoration is not stopped.
set -u
hasZeros=false
[ "${1-}" != -0 ] || { hasZeros=true && shift; }
reads=${1-}
if [ $# != 1 ] || ! [[ $reads =~ ^[0-9]+$ ]]; then
  echo 'usage: restore-many.sh [-0] READS < LIST' >&2
  exit 1
fi
command -v zan_restore > /dev/null || {
  echo 'restore-many.sh: zan_restore is not in the path' >&2
  exit 1
}
stall=${STALL_SECONDS:-60}
[[ $stall =~ ^[0-9]+$ ]] || stall=60
scratch=$(mktemp -d) || exit 1
trap 'rm -rf "$scratch"' EXIT
declare -A shown since # the last progress of a file, and when it was new
waiting=() refused=()
whole=0 all=0 failures=0 first=0 told=-1 # `first`: what was there at the start

# failed FILE WHAT OUTPUT: one line, of what the tool printed less its steps and what only a
# debugger wants.
failed() {
  local line text=
  while IFS= read -r line; do
    case $line in
      '' | 'volume is: '* | 'checking instance '* | 'sending to '* | *': Throw in '* | 'Dynamic '* | 'std::'*) ;;
      *) text+="${text:+; }${line/\[*\] = / }" ;;
    esac
  done <<< "$3"
  text=$2${2:+${text:+: }}$text
  clearStatus
  if [[ $1 == *[[:cntrl:]]* ]]; then printf '%q: %s\n' "$1" "$text" >&2; else echo "$1: $text" >&2; fi
  failures=$((failures + 1))
}
clearStatus() { [ ! -t 2 ] || printf '\r\033[K' >&2; }

# Whether the file's tag names this backing path: the same bytes as in a tag made for it.
hasTag() {
  rm -f "$scratch"/*
  zan_restore "$scratch/made" "$2" > "$scratch/output" &&
    cmp -s -i 36 -- "$1:restore_filter_tag" "$scratch/made:restore_filter_tag"
}

# A file that the filter refuses because it is out of files, memory or threads is started when
# others are whole.
start() {
  local output
  if output=$(zan_restore --startAggressiveRestore "$reads" "$1") || [[ $output == *$'\n'0x800700aa* ]]; then
    waiting+=("$1")
  elif [[ $output == *$'\n'0x8007000[48e]\[* && ${#waiting[@]} -gt 0 ]]; then
    refused+=("$1")
  else
    failed "$1" 'not started' "$output"
  fi
}

begin() {
  local file=$1 backing=$2 output
  all=$((all + 1))
  [[ $file != -* ]] || file=./$file # not an option
  if output=$(zan_restore "$file" "$backing" simple "$reads") ||
    { [ "$output" = 'create local file failed: 50' ] && hasTag "$file" "$backing"; }; then
    start "$file"
  elif [ "$output" = 'create local file failed: 50' ]; then
    failed "$file" 'not set up' 'exists, and has no tag for this backing path'
  else
    failed "$file" 'not set up' "${output:-the backing path is empty or too long}"
  fi
}

if $hasZeros; then
  while IFS= read -r -d '' file && IFS= read -r -d '' backing; do begin "$file" "$backing"; done
  [ -z "$file" ] || failed "$file" 'not set up' 'the list ends without a zero byte or a backing path'
else
  mark=$'\xef\xbb\xbf' # a byte-order mark, which editors on Windows put first
  while IFS= read -r line || [ -n "$line" ]; do
    line=${line#"$mark"} mark=
    line=${line%$'\r'}
    case $line in
      '') ;;
      $'\xff\xfe'* | $'\xfe\xff'*)
        failed 'the list' 'not read' 'it is UTF-16: save it as UTF-8'
        break
        ;;
      *$'\t'*) begin "${line%%$'\t'*}" "${line#*$'\t'}" ;;
      *) failed "$line" 'not set up' 'no tab and backing path behind it' ;;
    esac
  done
fi

# Tells whether to wait on for a file.
isUnfinished() {
  local output
  if ! output=$(zan_restore --progress "$1"); then
    failed "$1" '' "$output"
    return 1
  fi
  if [ "$output" != "${shown[$1]-}" ]; then
    if [ -z "${shown[$1]-}" ] && [[ $output =~ (0x[0-9a-f]+)\ of ]]; then first=$((first + BASH_REMATCH[1])); fi
    shown[$1]=$output
    since[$1]=$SECONDS
  fi
  if [[ $output =~ ^progress:\ (0x[0-9a-f]+)\ of\ (0x[0-9a-f]+)$ && ${BASH_REMATCH[1]} = "${BASH_REMATCH[2]}" &&
    ${BASH_REMATCH[2]} != 0x0 ]]; then
    clearStatus
    echo "$1: whole"
    whole=$((whole + 1))
    return 1
  fi
  [ $((SECONDS - ${since[$1]})) -lt "$stall" ] && return
  failed "$1" 'stands still' "$output"
  return 1
}

showStatus() {
  local output sum=0 total=0
  for output in "${shown[@]}"; do
    [[ $output =~ (0x[0-9a-f]+)\ of\ (0x[0-9a-f]+) ]] || continue
    sum=$((sum + BASH_REMATCH[1]))
    total=$((total + BASH_REMATCH[2]))
  done
  printf '\r\033[K%d of %d files whole, %d of %d MB, %d MB/s' "$whole" "$all" $((sum / 1000000)) \
    $((total / 1000000)) $(((sum - first) / 1000000 / (SECONDS > 0 ? SECONDS : 1))) >&2
}

SECONDS=0
while [ ${#waiting[@]} -gt 0 ]; do
  unfinished=()
  for file in "${waiting[@]}"; do
    if isUnfinished "$file"; then unfinished+=("$file"); fi
    if [ -t 2 ] && [ "$told" != "$SECONDS" ]; then
      told=$SECONDS
      showStatus
    fi
  done
  [ ! -t 2 ] || showStatus
  isLess=$((${#unfinished[@]} < ${#waiting[@]}))
  waiting=("${unfinished[@]}")
  if [ $isLess = 1 ]; then
    again=("${refused[@]}") refused=()
    for file in "${again[@]}"; do
      if [ ${#refused[@]} = 0 ]; then start "$file"; else refused+=("$file"); fi
    done
  fi
  [ ${#waiting[@]} -eq 0 ] || sleep 0.2
done
clearStatus
exit $((failures > 0))
