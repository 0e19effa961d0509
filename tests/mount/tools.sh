#!/usr/bin/env bash
# What people do with folders, done on a mount of an empty drive, then compared with the same done
# on the local disk and with what the service has. Arguments: the folder with the programs.
set -euo pipefail
bin=$1
skip() { echo "SKIPPED: $1"; exit 77; }
[[ -r /dev/fuse && -w /dev/fuse ]] || skip "/dev/fuse cannot be used here"
for tool in git rsync tar sqlite3 curl fio; do
  command -v "$tool" > /dev/null || skip "there is no $tool"
done

work=$(mktemp -d)
emulator=
finish() {
  "$bin/vormlane" unmount --now > /dev/null 2>&1 || true
  [[ -z $emulator ]] || kill "$emulator" || true
  rm -rf "$work"
}
trap finish EXIT
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_RUNTIME_DIR=$work/run
export HOME=$work GIT_CONFIG_NOSYSTEM=1
git config --global user.name Tester
git config --global user.email tester@example.com
git config --global --add safe.directory '*'

coproc service { exec "$bin/drive-emulator" --seed empty; }
emulator=$service_PID
read -r -u "${service[0]}" ready
value() { tr ' ' '\n' <<< "$ready" | sed -n "s/^$1=//p"; }
"$bin/vormlane" profile set "drive_api_url=$(value api)" > /dev/null
token=$(curl -s -X POST -d '{}' "$(value admin)/tokens" | sed -n 's/.*"accessToken" *: *"\([^"]*\)".*/\1/p')
mkdir -p "$XDG_CONFIG_HOME/vormlane/default" "$work/mnt"
chmod 700 "$XDG_CONFIG_HOME/vormlane/default"
(umask 077; echo "{\"results\":{\"access_token\":\"$token\"}}" \
  > "$XDG_CONFIG_HOME/vormlane/default/credential.json")
mount_it() { "$bin/vormlane" mount "$work/mnt" --no-push --retry 0.1; }
mount_it
drive="$work/mnt/My Drive"

step() { echo "== $1"; }

step "git: clone, commit, gc, fsck"
mkdir "$work/origin"
git -C "$work/origin" init -q
for i in $(seq 60); do
  mkdir -p "$work/origin/dir$((i % 7))"
  head -c $((i * 997)) /dev/urandom > "$work/origin/dir$((i % 7))/file$i"
done
git -C "$work/origin" add .
git -C "$work/origin" commit -q -m first
git clone -q "$work/origin" "$drive/clone"
echo more >> "$drive/clone/dir1/file1"
git -C "$drive/clone" commit -q -a -m second
git -C "$drive/clone" gc -q
git -C "$drive/clone" fsck --strict
[[ -z $(git -C "$drive/clone" status --porcelain) ]]

step "cp -a, rsync -a, tar: the same bytes and times"
cp -a "$work/origin/dir2" "$drive/copied"
rsync -a "$work/origin/dir3" "$drive/"
tar -C "$work/origin" -cf - dir4 | tar -C "$drive" -xf -
diff -r "$work/origin/dir2" "$drive/copied"
diff -r "$work/origin/dir3" "$drive/dir3"
diff -r "$work/origin/dir4" "$drive/dir4"
# Nothing is left for rsync to do, its own and the copy's times included.
[[ -z $(rsync -ai "$work/origin/dir3" "$drive/" | grep -v '^\.d') ]]

step "an SQLite database"
sqlite3 "$drive/data.db" "CREATE TABLE t(n INTEGER PRIMARY KEY, text TEXT)"
for i in $(seq 20); do
  sqlite3 "$drive/data.db" "INSERT INTO t(text) VALUES(hex(randomblob(500)))"
done
[[ $(sqlite3 "$drive/data.db" "PRAGMA integrity_check; SELECT count(*) FROM t") == $'ok\n20' ]]

step "fio: random writes of four programs, read back and verified"
(cd "$work" && fio --name=verify --directory="$drive" --numjobs=4 --size=4m --rw=randwrite \
  --bsrange=512-64k --ioengine=psync --verify=crc32c --fsync=64 --randseed=7 --output=fio.log) \
  || { cat "$work/fio.log"; exit 1; }

step "the service has the same, and a new mount without any cache shows it"
(cd "$drive" && find . -type f -exec sha256sum {} + | sort) > "$work/before"
"$bin/vormlane" unmount "$work/mnt"
rm -rf "$XDG_DATA_HOME/vormlane/default"
"$bin/vormlane" profile set "drive_api_url=$(value api)" > /dev/null
mount_it
(cd "$drive" && find . -type f -exec sha256sum {} + | sort) > "$work/after"
diff "$work/before" "$work/after"
[[ $(stat -c %Y "$drive/copied/file2") == $(stat -c %Y "$work/origin/dir2/file2") ]]

step "rm -rf"
rm -rf "$drive/clone" "$drive/dir3"
"$bin/vormlane" drain
[[ -z $("$bin/vormlane" ls "/My Drive" | grep -E 'clone|dir3') ]]
"$bin/vormlane" unmount "$work/mnt"
echo "$(wc -l < "$work/after") files, all equal"
