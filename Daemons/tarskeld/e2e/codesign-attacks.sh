#!/usr/bin/env bash
# The attack table of the code identity gate, end to end: the real tarskeld,
# provisioned with team TEAMCODE01 and its code key, and clients run by an
# ordinary user who can open the socket. Each row names a client and the
# caller text its request must leave in the audit chain; the observed text
# is printed beside it.
#
#   codesign-attacks.sh TARSKELD TARSKEL HANDOFF_CLIENT WIRE_CLIENT
#
# Needs root (it makes a throwaway user and a root-owned tree under /opt);
# exits 77, skipped, otherwise.
set -uo pipefail
tarskeld=$1 tool=$2 handoff=$3 wire=$4

if [ "$(id -u)" -ne 0 ]; then
  echo "codesign-attacks: skipped: needs root (a throwaway user and a root-owned tree)"
  exit 77
fi
for need in useradd userdel setpriv strace /usr/bin/python3; do
  command -v "$need" >/dev/null || { echo "codesign-attacks: skipped: no $need"; exit 77; }
done

# /tmp and /var/tmp are sticky and world-writable: nothing under them is
# root's alone. /opt is root's; the work directory must be too.
work=$(mktemp -d /opt/tarskel-codesign-e2e.XXXXXX)
user=tskl-e2e-$$
daemon=
cleanup() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null
  userdel "$user" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
chmod 0755 "$work"
useradd --no-create-home --home-dir "$work/home" --shell /usr/sbin/nologin "$user" || exit 1
uid=$(id -u "$user") gid=$(id -g "$user")
root=$work/root socket=$work/run/d.sock
mkdir -p "$root/vendor" "$work/run" "$work/keys" "$work/home"
chown "$uid:$gid" "$work/home"
cp "$wire" "$work/wire_client.py" && chmod 0755 "$work/wire_client.py"

# Keys: the team's code key, a key nobody listed, and a listed key of a team
# the machine does not trust.
key() { "$tool" codesign keygen --team "$1" --out "$work/keys/$1.key" >"$work/keys/$1.pub"; }
key TEAMCODE01 && key TEAMROGUE1 && key TEAMOTHER2 || exit 1
"$tool" vendor allowlist --revision 1 "$work/keys/TEAMCODE01.pub" "$work/keys/TEAMOTHER2.pub" \
  -o "$root/vendor/code-keys.json" || exit 1
teams='{"revision":1,"teamIds":["TEAMCODE01"]}'
echo "$teams" >"$root/vendor/teams.json"

# A sealed tree holding the tool and the hand-over client, signed by `key`.
tree() {
  local dir=$work/trees/$1
  mkdir -p "$dir/bin"
  cp "$tool" "$handoff" "$dir/bin/"
  "$tool" vendor seal "$dir" --key "$work/keys/$2.key" --artifact-id net.tarskel.e2e.client \
    --type service --version 1.0.0 --monotonic 1 --expires 2099-01-01T00:00:00Z -q >/dev/null
}
tree good TEAMCODE01 && tree rogue TEAMROGUE1 && tree other TEAMOTHER2 && tree changed TEAMCODE01 ||
  exit 1
# Root changes one byte of the sealed copy: a letter of the compiler's note.
at=$(grep -abo 'GCC: (' "$work/trees/changed/bin/tarskel" | head -1 | cut -d: -f1)
printf 'X' | dd of="$work/trees/changed/bin/tarskel" bs=1 seek="$at" conv=notrunc status=none
# The same bytes in a directory the user owns.
cp "$work/trees/good/bin/tarskel" "$work/home/tarskel" && chown "$uid:$gid" "$work/home/tarskel"

start() {
  "$tarskeld" --mach-service "$socket" --root "$root" 2>>"$work/daemon.log" &
  daemon=$!
  for _ in $(seq 100); do [ -S "$socket" ] && break; sleep 0.1; done
  chmod 0666 "$socket"  # the user can open the socket: the gate alone decides
}
stop() {
  kill "$daemon"
  wait "$daemon" 2>/dev/null
  daemon=
  rm -f "$socket"  # so that the next start is waited for
}
# A clean environment: the runner's own could hold a loader variable.
as_user() {
  setpriv --reuid="$uid" --regid="$gid" --clear-groups -- env -i PATH=/usr/bin:/bin "$@"
}
call() { as_user "$@" call daemon.info --mach-service "$socket" ${svc:+--service-id "$svc"} >/dev/null 2>&1; }
lastCaller() {
  "$tool" audit tail --root "$root" -n 1 --json |
    /usr/bin/python3 -c 'import json,sys; print(json.loads(sys.stdin.readline())["caller"])'
}

failures=0
# row NAME EXPECTED: the last audit row's caller must equal EXPECTED, or
# begin with it when EXPECTED ends in "*".
row() {
  local observed
  observed=$(lastCaller)
  if [[ "$observed" == $2 ]]; then
    printf 'ok    %-44s %s\n' "$1" "$observed"
  else
    printf 'FAIL  %-44s %s (wanted %s)\n' "$1" "$observed" "$2"
    failures=$((failures + 1))
  fi
}
rejected='rejected:gate SO: *'
good=$work/trees/good/bin

start
svc= call "$good/tarskel";                              row "sealed copy, root-owned tree" "team:TEAMCODE01"
svc=svc.e2e call "$good/tarskel";                       row "sealed copy, with a serviceId" "team:TEAMCODE01 svc:svc.e2e"
svc= call "$work/home/tarskel";                         row "same bytes in the user's directory" "$rejected"
svc= call env LD_PRELOAD=/lib/x86_64-linux-gnu/libc.so.6 "$good/tarskel"
row "sealed copy with LD_PRELOAD (system library)" "$rejected"
svc= call strace -f -o /dev/null "$good/tarskel";       row "sealed copy under strace -f" "$rejected"
svc= call "$work/trees/changed/bin/tarskel";            row "sealed copy with one byte changed by root" "$rejected"
svc= call "$work/trees/rogue/bin/tarskel";              row "tree sealed by a key not in code-keys.json" "$rejected"
svc= call "$work/trees/other/bin/tarskel";              row "tree sealed for a team not in teams.json" "$rejected"
as_user /usr/bin/python3 "$work/wire_client.py" "$socket" >/dev/null
row "python3 speaking the socket protocol" "$rejected"
handed=$(as_user "$good/HandoffClient" "$socket" /usr/bin/python3 "$work/wire_client.py" --fd 3)
row "socket handed to a child running python3" "$rejected"
if [ "$(head -1 <<<"$handed")" != "parent ok" ] || ! grep -q '^unauthorizedClient ' <<<"$handed"; then
  echo "FAIL  hand-over: the parent must be served and the child refused, got: $handed"
  failures=$((failures + 1))
fi
handed=$(as_user "$good/HandoffClient" "$socket" --exec /usr/bin/python3 "$work/wire_client.py" --fd 3)
row "sealed client that execs python3 on its socket" "$rejected"
if [ "$(head -1 <<<"$handed")" != "parent ok" ] || ! grep -q '^unauthorizedClient ' <<<"$handed"; then
  echo "FAIL  exec: the sealed program must be served and python3 refused, got: $handed"
  failures=$((failures + 1))
fi
stop

rm "$root/vendor/teams.json"
start
svc= call "$good/tarskel"
row "no teams.json" "unverified:gate SO sin provisionar (sin vendor/teams.json)"
stop

if [ $failures -ne 0 ]; then
  echo "codesign-attacks: $failures row(s) failed; the daemon said:"
  cat "$work/daemon.log"
  exit 1
fi
echo "codesign-attacks: every row holds"
