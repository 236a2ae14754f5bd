#!/usr/bin/env bash
# A single-node, memory-backed object-storage cluster with its S3 gateway on
# 127.0.0.1, for the s3-ceph stage of scripts/test.
#
#   tests/support/ceph_s3.sh DIR
#
# Makes a monitor, one OSD whose object store lives in memory, and the S3
# gateway, all under DIR (configuration, monitor data, logs, sockets), with
# authentication between the daemons off and one replica. Creates the S3 user
# with the test credentials (QLTTESTACCESSKEY / qlt-test-secret-key), prints
# "PORT <n>" (the gateway's port) once the gateway answers, then waits; when
# its standard input closes it stops every daemon and removes DIR.
# Everything binds 127.0.0.1 only. Fails (exit 1, the log's tail on stderr)
# when the cluster is not up within two minutes.
set -euo pipefail

dir=$(realpath -m "$1")
rm -rf "$dir"
mkdir -p "$dir"/{run,log,mon.a,osd.0,rgw}
conf=$dir/ceph.conf

free_port() {
  /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}
mon_port=$(free_port)
rgw_port=$(free_port)
fsid=$(cat /proc/sys/kernel/random/uuid)

cat >"$conf" <<EOF
[global]
fsid = $fsid
mon host = v2:127.0.0.1:$mon_port
public addr = 127.0.0.1
public network = 127.0.0.0/8
ms bind ipv6 = false
auth cluster required = none
auth service required = none
auth client required = none
auth allow insecure global id reclaim = true
ms mon client mode = crc
ms client mode = crc
ms mon service mode = crc
ms service mode = crc
ms mon cluster mode = crc
ms cluster mode = crc
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd crush chooseleaf type = 0
mon allow pool size one = true
mon allow pool delete = true
mon warn on pool no redundancy = false
run dir = $dir/run
log file = $dir/log/\$name.log
admin socket = $dir/run/\$name.asok
pid file = $dir/run/\$name.pid
keyring = $dir/keyring
[mon.a]
mon data = $dir/mon.a
[osd.0]
osd data = $dir/osd.0
osd objectstore = memstore
memstore device bytes = 2147483648
[client.rgw.a]
rgw frontends = beast endpoint=127.0.0.1:$rgw_port
rgw data = $dir/rgw
rgw enable usage log = false
EOF

pids=()
stop() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  rm -rf "$dir"
}
fail() {
  echo "ceph_s3: $1" >&2
  tail -n 20 "$dir"/log/*.log >&2 2>/dev/null || true
  stop
  exit 1
}
trap stop EXIT
deadline=$((SECONDS + 120))

ceph-authtool --create-keyring "$dir/keyring" --gen-key -n mon. --cap mon 'allow *' >/dev/null
monmaptool --create --addv a "[v2:127.0.0.1:$mon_port]" --fsid "$fsid" "$dir/monmap" >/dev/null
ceph-mon -c "$conf" --mkfs -i a --monmap "$dir/monmap" --keyring "$dir/keyring" || fail "monitor mkfs failed"
ceph-mon -c "$conf" -i a -f & pids+=($!)
until ceph -c "$conf" --connect-timeout 5 status >/dev/null 2>&1; do
  [ $SECONDS -lt $deadline ] || fail "the monitor did not answer"
  sleep 1
done

osd_uuid=$(cat /proc/sys/kernel/random/uuid)
id=$(ceph -c "$conf" osd new "$osd_uuid")
ceph-osd -c "$conf" -i "$id" --mkfs --osd-uuid "$osd_uuid" >/dev/null 2>&1 || fail "OSD mkfs failed"
ceph-osd -c "$conf" -i "$id" -f & pids+=($!)
ceph -c "$conf" osd crush add "osd.$id" 1 root=default >/dev/null 2>&1 || true
until ceph -c "$conf" osd stat 2>/dev/null | grep -q "1 up"; do
  [ $SECONDS -lt $deadline ] || fail "the OSD did not come up"
  sleep 1
done

radosgw -c "$conf" -n client.rgw.a -f & pids+=($!)
until curl -s -o /dev/null "http://127.0.0.1:$rgw_port/"; do
  [ $SECONDS -lt $deadline ] || fail "the S3 gateway did not answer"
  sleep 1
done
radosgw-admin -c "$conf" user create --uid qlt --display-name "qlt tests" \
  --access-key QLTTESTACCESSKEY --secret-key qlt-test-secret-key >/dev/null || fail "cannot create the S3 user"

echo "PORT $rgw_port"
cat >/dev/null || true  # until the parent closes our input
