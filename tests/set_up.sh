#!/usr/bin/env bash
# The restore set-up end to end: the built program (the words of the command
# line, an emulator first if there is one) on real file systems.
set -u
# A user's locale must make no difference; this one knows ASCII alone.
export LC_ALL=C
program=("$@")
isWindows=false
[[ ${*: -1} == *.exe ]] && isWindows=true
folder=$(mktemp -d)
mounted=()
trap 'for m in "${mounted[@]}"; do umount "$m"; done; rm -rf "$folder"' EXIT
cd "$folder" || exit 1
failures=0

# check STATUS OUTPUT WORDS...: runs the program, compares both.
check() {
  local status=$1 output=$2 got
  shift 2
  got=$("${program[@]}" "$@" 2>&1; echo "status $?")
  [ "$got" = "${output:+$output$'\n'}status $status" ] && return
  printf 'FAILED: %q\n  got: %s\n  not: %s, status %s\n' "$*" "$got" "$output" "$status"
  failures=$((failures + 1))
}
# that WHAT COMMAND...: a condition that must hold.
that() {
  local what=$1
  shift
  "$@" && return
  printf 'FAILED: %s\n' "$what"
  failures=$((failures + 1))
}
absent() { [ ! -e "$1" ] && [ ! -e "$1:restore_filter_tag" ]; }

if $isWindows; then
  # Wine has no named streams: it makes a file of the stream's name. With a local
  # file of one letter that name begins with a drive, and the stream can't be made.
  export LC_ALL=C.UTF-8 # Wine's own names of files follow the locale
  program=(bash -c '"$@" | tr -d "\r"; exit "${PIPESTATUS[0]}"' - "${program[@]}")
fi
stream() { if $isWindows; then echo "$1:restore_filter_tag:\$DATA"; else echo "$1:restore_filter_tag"; fi; }

check 0 'create tag stream: \??\c:\dir\foo.txt' 'file' 'c:\dir\foo.txt'
that 'an empty local file' cmp -s file /dev/null
that 'a record of 16376 bytes' [ "$(stat -c %s "$(stream file)")" = 16376 ]
that 'the path at offset 36' [ "$(od -An -tx1 -j24 -N20 "$(stream file)" | tr -d ' \n')" = \
  0800240000000000000000005c003f003f005c00 ]

echo kept > exists
check 1 'create local file failed: 50' exists 'c:\x'
that 'an existing file as it was' [ "$(cat exists)" = kept ]
that 'no stream at an existing file' [ ! -e "$(stream exists)" ]
check 1 'create local file failed: 3' nodir/f 'c:\x'
check 0 $'create tag stream: \\??\\c:\\\xc3\xa9\xe2\x82\xac\xe4\xb8\xad\xf0\x9f\x98\x80' \
  $'n\xc3\xa9\xe2\x82\xac\xe4\xb8\xad\xf0\x9f\x98\x80' $'c:\\\xc3\xa9\xe2\x82\xac\xe4\xb8\xad\xf0\x9f\x98\x80' simple 4
that 'a name outside the basic plane' [ -e $'n\xc3\xa9\xe2\x82\xac\xe4\xb8\xad\xf0\x9f\x98\x80' ]

# An output that can't be written changes nothing, standard descriptors closed or not.
(exec "${program[@]}" full 'c:\x' > /dev/full)
that 'status 0 with a full output' [ $? = 0 ]
that 'a whole record with a full output' [ "$(stat -c %s "$(stream full)")" = 16376 ]

if $isWindows; then
  check 1 'create tag stream failed: 2' f 'c:\x'
  that 'no half-made file' [ ! -e f ]
else
  check 0 $'create tag stream: \\??\\c:\\bad\xff\xc3' $'bad\xff\xc3' $'c:\\bad\xff\xc3'
  that 'bytes that are no UTF-8, kept' [ -e $'bad\xff\xc3' ]

  (exec "${program[@]}" closed 'c:\x' 0<&- 1>&- 2>&-)
  that 'status 0 with closed descriptors' [ $? = 0 ]
  that 'nothing but the record in the stream' cmp -s closed:restore_filter_tag <("${program[@]}" \
    other 'c:\x' > /dev/null; cat other:restore_filter_tag)
  (exec "${program[@]}" exists 'c:\x' 1>&-)
  that 'status 1 with a closed output' [ $? = 1 ]
  (trap '' PIPE; "${program[@]}" piped 'c:\x' | true; exit "${PIPESTATUS[0]}")
  that 'status 0 when the reader has gone' [ $? = 0 ]

  echo mine > 'stale:restore_filter_tag'
  check 1 'create tag stream failed: 50' stale 'c:\x'
  that 'no half-made file' [ ! -e stale ]
  that 'a file of the stream'\''s name as it was' [ "$(cat stale:restore_filter_tag)" = mine ]

  mkdir folder
  check 1 'create local file failed: 50' folder 'c:\x'
  check 1 'create local file failed: 3' exists/f 'c:\x'
  check 1 'create local file failed: 3' '' 'c:\x'
  check 1 'create local file failed: ce' "$(printf 'x%.0s' {1..256})" 'c:\x'
  long=$(printf 'x%.0s' {1..250})
  check 1 'create tag stream failed: ce' "$long" 'c:\x'
  that 'no file whose stream has too long a name' absent "$long"
  (ulimit -f 0; check 1 'writing tag stream failed: df' limited 'c:\x'; exit "$failures") || failures=$?
  that 'nothing beyond a size limit' absent limited
  # A program that is linked dynamically doesn't start at all then.
  if (ulimit -n 3; "${program[@]}" 2>&1) | grep -q Where; then
    (ulimit -n 3; exec "${program[@]}" descriptors 'c:\x') > out
    that 'descriptors used up' [ "$(cat out)" = 'create local file failed: 4' ]
  fi

  check 1 'create local file failed: 7b' 'typed:$DATA' 'c:\x'
  check 1 'create tag stream failed: 7b' 'typed:s:$DATA' 'c:\x'
  that 'no file of a stream that has none itself' absent typed:s

  ln -s nowhere link
  check 1 'create local file failed: 50' link 'c:\x'
fi

$isWindows || [ "$(id -u)" = 0 ] || echo 'not tried: a full disk, NTFS (they need root)'
if ! $isWindows && [ "$(id -u)" = 0 ]; then
  mkdir small ntfs
  mount -t tmpfs -o size=8k none small && mounted+=(small)
  check 1 'writing tag stream failed: 70' small/f 'c:\x'
  that 'nothing left on a full disk' absent small/f
  mount -o remount,ro small
  check 1 'create local file failed: 13' small/f 'c:\x'

  truncate -s 8M image
  mkntfs -qF image > mkntfs.log 2>&1
  ntfs-3g image ntfs -o streams_interface=windows && mounted+=(ntfs)
  check 0 'create tag stream: \Device\Mup\s\d' $'ntfs/\xc3\xa9' '\\s\d' simple 4
  check 1 'create local file failed: 50' $'ntfs/\xc3\xa9' '\\s\d'
  that 'a real stream, no second file' [ "$(ls ntfs)" = $'\xc3\xa9' ]
  head -c 7900000 /dev/zero > ntfs/filler 2> filler.log
  check 1 'writing tag stream failed: 70' ntfs/nospace '\\s\d'
  that 'nothing left on full NTFS' [ ! -e ntfs/nospace ]
  umount ntfs && mounted=(small)
  LC_ALL=C.UTF-8 ntfscat -n restore_filter_tag image $'\xc3\xa9' > record
  check 0 'create tag stream: \Device\Mup\s\d' same '\\s\d' simple 4
  that 'the record read back from the image' cmp -s record same:restore_filter_tag
fi

[ "$failures" = 0 ] && echo "set-up: all held"
exit "$((failures > 0))"
