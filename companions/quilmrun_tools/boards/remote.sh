# The board's side of quilmrun-boards, for any POSIX shell with tar, head, dd and sleep. It comes over
# the connection each time, so that nothing has to be installed. What is meant for the other side goes
# to standard error in lines that start with a token of the run, as a login may print things of its
# own; standard output carries one archive, after a line with the token.
#
# Arguments: REMOTE_DIR NAME TOKEN KIND PART TIMEOUT SILENCE KEEP LIBRARY_PATH
base=$1 name=$2 token=$3 kind=$4 part=$5 timeout=$6 silence=$7 keep=$8 library_path=$9
umask 077
LC_ALL=C
export LC_ALL
reader='' watcher='' loader='' tool=''
grace=10  # seconds between TERM and KILL

say() { printf '%s %s\n' "$token" "$*" >&2; }

fail() {
  say "fail $*"
  exit 9
}

alive() { [ -n "$1" ] && kill -0 "$1" 2> /dev/null; }

# ---- What is asked of every board ---------------------------------------------------------------

# The library as the loader finds it, for a tool in the folder $1.
find_library() {
  old=$IFS
  IFS=:
  # shellcheck disable=SC2046,SC2086  # a list of folders
  set -- $library_path "$1/bin" "$1/lib" $(sed -n 's/^\(\/.*\)/\1:/p' /etc/ld.so.conf \
    /etc/ld.so.conf.d/*.conf 2> /dev/null | tr -d '\n') /lib64 /usr/lib64 /lib /usr/lib
  IFS=$old
  for folder in "$@"; do
    if [ -f "$folder/libquilm.so" ]; then
      printf '%s\n' "$folder/libquilm.so"
      return
    fi
  done
}

checksum() {
  if [ -f "$1" ]; then
    { sha256sum < "$1" 2> /dev/null || cksum < "$1"; } | sed 's/ .*//'
  fi
}

describe_library() {
  library=$(find_library "$1")
  printf '%s %s\n' "$(checksum "$library")" "$library"
}

facts() {
  say "fact libc $(getconf GNU_LIBC_VERSION 2> /dev/null || ldd --version 2>&1 | head -n 1)"
  # shellcheck disable=SC2046,SC2005  # the fourth word of the last line
  say "fact disk $(df -kP . | tail -n 1 | (read -r _ _ _ free _; echo "$free"))"
  say "fact clock $(date +%s)"
  say "fact media $(sed -n '/used=/{p;q;}' /proc/umap/media-mem 2> /dev/null)"
  say "fact library $(describe_library "$1")"
}

# ---- The tool, and who watches it ---------------------------------------------------------------

# Asks the process $1 to end, and forces it after a while.
end_process() {
  kill -TERM "$1" 2> /dev/null
  waited=0
  while alive "$1" && [ "$waited" -lt "$grace" ]; do
    sleep 1 2> /dev/null
    waited=$((waited + 1))
  done
  kill -KILL "$1" 2> /dev/null
}

# The tool itself, which may be a child of the recorder.
end_tool() {
  [ -z "$1" ] || echo "$1" > "$part/reason"
  end_process "$(cat "$part/pid" 2> /dev/null || echo "$tool")"
}

# Every line from the other side is a sign of life. The end of them is the end of the connection.
follow_connection() {
  while IFS= read -r _; do
    : > "$part.beat"
  done
  : > "$part.gone"
}

# Once a second: tells how far the tool is, and ends it when it does not get on or nobody listens. A
# shell that has just been forked may lose the signal that is to end it, so it looks for itself, too.
watch_tool() {
  at=0 still=0 quiet=0
  while sleep 1 2> /dev/null && [ -d "$part" ] && [ ! -f "$part/ended" ]; do
    if [ -f "$part.beat" ]; then
      rm -f "$part.beat"
      quiet=0
    else
      quiet=$((quiet + 1))
    fi
    still=$((still + 1))
    while [ -d "$part/out/$at" ]; do
      at=$((at + 1)) still=0
    done
    if [ -f "$part.gone" ] || [ "$quiet" -gt "$silence" ]; then
      end_tool lost
      return
    fi
    say "at $at"
    if [ "$still" -ge "$timeout" ]; then
      end_tool hung
      return
    fi
  done
}

# Ends the process $1 after $2 seconds, unless the pipe that it reads is gone by then.
limit() {
  left=$2
  while sleep 1 2> /dev/null && [ -p "$part.pipe" ]; do
    left=$((left - 1))
    say "at 0"
    if [ "$left" -le 0 ]; then
      kill -TERM "$1"
      return
    fi
  done
}

# However this ends, nothing of the part stays, unless it is to be kept.
finish() {
  trap '' HUP INT PIPE TERM
  for child in $reader $watcher $loader; do
    kill "$child" 2> /dev/null
  done
  if alive "$tool"; then
    end_tool ''
  fi
  [ -n "$keep" ] || rm -rf "./$part"
  rm -f "./$part.beat" "./$part.gone" "./$part.pid" "./$part.pipe"
}

# A part that lost its connection may take a while to end, and the accelerator is still its. $1 are
# the parts of this board; another that shares the folder has parts of other names.
wait_for_others() {
  for file in "$1"-*.pid; do
    [ -f "$file" ] || continue
    waited=0
    while alive "$(cat "$file" 2> /dev/null)" && [ "$waited" -lt $((grace + 5)) ]; do
      say "at 0"
      sleep 1 2> /dev/null
      waited=$((waited + 1))
    done
    other=${file%.pid}
    if [ -f "$file" ]; then
      [ -n "$keep" ] || rm -rf "./$other"
      rm -f "./$other.beat" "./$other.gone" "./$other.pid" "./$other.pipe"
    fi
  done
}

# ---- One part -----------------------------------------------------------------------------------

# Takes an archive of $1 bytes from the connection, at 20 KB a second or faster.
unpack() {
  mkfifo "$part.pipe" || fail "cannot write to $base"
  head -c "$1" <&3 > "$part.pipe" &
  loader=$!
  limit $$ $((silence + $1 / 20000)) > /dev/null 3<&- &
  watcher=$!
  tar xf - < "$part.pipe" > /dev/null 2>&1
  unpacked=$?
  rm -f "$part.pipe"
  kill "$watcher" "$loader" 2> /dev/null
  wait "$loader" 2> /dev/null
  loader='' watcher=''
  [ "$unpacked" -eq 0 ] || fail "cannot unpack: $(df -kP . | tail -n 1 |
    (read -r _ _ _ free _; echo "$free")) KB are free in $base"
}

run_tool() {
  follow_connection <&3 > /dev/null 2>&1 &
  reader=$!
  (cd "$part" && exec sh ./command > log.txt 2> err.txt < /dev/null 3<&-) &
  tool=$!
  watch_tool < /dev/null > /dev/null 3<&- &
  watcher=$!
  wait "$tool"
  status=$?
  tool=''
  : > "$part/ended"
  kill "$watcher" 2> /dev/null
  watcher=''
}

# Sends back what the tool left; its outputs only when it ended well.
send_back() {
  printf 'status %s\nreason %s\n' "$status" "$(cat reason 2> /dev/null)" > status
  for file in memory_data.csv record.json; do
    if [ -f "$file" ]; then
      set -- "$@" "$file"
    fi
  done
  if [ "$status" -eq 0 ] && [ -d out ]; then
    set -- "$@" out
  fi
  printf '%s tar\n' "$token"
  tar cf - status log.txt err.txt "$@" 2> /dev/null
}

run_part() {
  have=''
  for item in tool-* model-*; do
    [ ! -e "$item" ] || have=$have$item,
  done
  say "hello $(uname -m) ${have:-,} $base/$name"
  IFS= read -r bytes <&3 || exit 1
  case $bytes in '' | *[!0-9]*) exit 1 ;; esac
  mkdir "$part" || fail "cannot write to $base"
  trap finish EXIT
  echo $$ > "$part.pid"
  unpack "$bytes"
  for item in "$part"/new-*; do  # whole now
    place=${item#"$part/new-"}
    [ ! -e "$item" ] || [ -e "$place" ] || mv "$item" "$place"
  done
  [ -f library ] || describe_library "$(sed -n 's/^# tool //p' "$part/command")" > library
  say "fact library $(cat library)"
  run_tool
  [ ! -f "$part.gone" ] || exit 1
  (cd "$part" && send_back)
}

exec 3<&0 < /dev/null
trap 'exit 1' HUP INT PIPE TERM
cd -- "$base" 2> /dev/null || fail "there is no folder $base; name another with --remote-dir"
base=$(pwd -P)
case $kind in
  clean)
    cd "./$name" 2> /dev/null || exit 0
    wait_for_others part
    cd .. && rm -rf "./$name"
    [ ! -d "$name" ] || fail "cannot remove $base/$name" ;;
  facts)
    say "hello $(uname -m) , $base"
    facts "$part" ;;
  part)
    mkdir "$name" 2> /dev/null
    # Of another user's folder the permissions could not be changed.
    { cd "./$name" && chmod 700 .; } 2> /dev/null || fail "cannot write to $base"
    wait_for_others "${part%-*-*-*}"
    run_part ;;
esac
