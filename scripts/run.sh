#!/usr/bin/env bash
# Streams live H.264 video between two arbor-peer processes and checks what
# arrived. Installs missing Debian packages, builds arbor-peer, then:
#   S  serves "video": videotestsrc encoded by x264enc, byte-stream H.264;
#   R  dials "video -> net -> rec" on S for a few seconds, "rec" being a
#      GStreamer sink that muxes the stream into a Matroska file, then hangs
#      up and prints its summary.
# Where this machine can make network namespaces (root, ip, veth), S and R
# run in two namespaces of their own joined by a veth pair, and R finds S by
# its presence name; elsewhere both run here and R dials S on 127.0.0.1.
# ffprobe then decodes the file. The script ends with one verdict line,
# "run: OK: ..." or "run: FAILED: ...", and exits 0 only for OK. Both peers
# and the namespaces are gone when it ends, whatever happened.
#
# Environment: ARBOR_BUILD_DIR (default build), ARBOR_RUN_SECONDS (default
# 10), ARBOR_RUN_LOOPBACK=1 to skip the namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${ARBOR_BUILD_DIR:-build}
stream_seconds=${ARBOR_RUN_SECONDS:-10}
jobs=$(nproc 2>/dev/null || echo 2)

bash scripts/setup.sh
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$jobs" --target arbor-peer
peer="$(pwd)/$build_dir/tools/arbor-peer/arbor-peer"
if [ ! -x "$peer" ]; then
  echo "run: FAILED: $peer was not built (GStreamer, CLI11 or nlohmann-json missing?)"
  exit 1
fi

work=$(mktemp -d /tmp/arbor-run-XXXXXX)
video="$work/received.mkv"
source_pipeline="videotestsrc is-live=true ! x264enc tune=zerolatency ! h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au ! appsink name=arbor"
sink_pipeline="appsrc name=arbor ! h264parse ! matroskamux ! filesink location=$video"
ns_s="arbor-run-s-$$"
ns_r="arbor-run-r-$$"
made_ns=()
serve_pid=""
dial_pid=""

# Stops both peers (SIGTERM, then SIGKILL after 5 s) and deletes the
# namespaces; runs however the script ends.
cleanup() {
  local pid
  for pid in $dial_pid $serve_pid; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in $dial_pid $serve_pid; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  for ns in "${made_ns[@]}"; do ip netns del "$ns" 2>/dev/null || true; done
}
trap cleanup EXIT
trap 'echo "run: FAILED: interrupted; logs are in $work"; exit 130' INT TERM

fail() {
  echo "run: FAILED: $*"
  echo "run: logs and the file are in $work"
  exit 1
}

# Two namespaces joined by a veth pair (10.78.0.1 for S, 10.78.0.2 for R),
# or nothing when this machine cannot make them.
make_namespaces() {
  [ "${ARBOR_RUN_LOOPBACK:-0}" = 1 ] && return 1
  [ "$(id -u)" -eq 0 ] && command -v ip >/dev/null || return 1
  ip netns add "$ns_s" 2>/dev/null || return 1
  made_ns+=("$ns_s")
  ip netns add "$ns_r" 2>/dev/null || return 1
  made_ns+=("$ns_r")
  ip -n "$ns_s" link add vs type veth peer name vr netns "$ns_r" 2>/dev/null &&
    ip -n "$ns_s" addr add 10.78.0.1/24 dev vs && ip -n "$ns_r" addr add 10.78.0.2/24 dev vr &&
    ip -n "$ns_s" link set lo up && ip -n "$ns_r" link set lo up &&
    ip -n "$ns_s" link set vs up && ip -n "$ns_r" link set vr up
}

if make_namespaces; then
  mode="two network namespaces, found by presence"
  in_s=(ip netns exec "$ns_s")
  in_r=(ip netns exec "$ns_r")
  serve_lan=(--listen 10.78.0.1 --presence-interface vs --presence-interval 200)
  dial_target=(--peer camera --listen 10.78.0.2 --presence-interface vr --presence-interval 200)
else
  for ns in "${made_ns[@]}"; do ip netns del "$ns" 2>/dev/null || true; done
  made_ns=()
  mode="loopback"
  in_s=()
  in_r=()
  serve_lan=(--listen 127.0.0.1 --port 0)
  dial_target=()
fi

echo "run: S serves live H.264 ($mode)"
echo "run: to watch S's forest meanwhile, in a second terminal: $peer top"
"${in_s[@]}" "$peer" serve --name camera "${serve_lan[@]}" \
  --source "video=gst:$source_pipeline" >"$work/serve.log" 2>&1 &
serve_pid=$!
port=""
for _ in $(seq 200); do
  port=$(awk '/^listening /{print $2; exit}' "$work/serve.log")
  [ -n "$port" ] && break
  kill -0 "$serve_pid" 2>/dev/null || break
  sleep 0.1
done
[ -n "$port" ] || fail "S did not start: $(tail -n 1 "$work/serve.log")"
[ ${#dial_target[@]} -gt 0 ] || dial_target=(--to "127.0.0.1:$port")

echo "run: R dials video -> net -> rec for $stream_seconds s"
"${in_r[@]}" "$peer" dial "${dial_target[@]}" --chain "video -> net -> rec" \
  --sink "rec=gst:$sink_pipeline" --seconds "$stream_seconds" --wait 15 --setup 15 \
  --no-progress >"$work/dial.log" 2>&1 &
dial_pid=$!
dial_status=0
wait "$dial_pid" || dial_status=$?
dial_pid=""
cat "$work/dial.log"
[ "$dial_status" -eq 0 ] || fail "R's dial ended with status $dial_status: $(tail -n 1 "$work/dial.log")"

kill -TERM "$serve_pid" 2>/dev/null || true
wait "$serve_pid" 2>/dev/null || true
serve_pid=""

[ -s "$video" ] || fail "R wrote no video to $video"
probe_errors="$work/ffprobe.err"
frames=$(ffprobe -v error -count_frames -select_streams v:0 \
  -show_entries stream=codec_name,nb_read_frames -of csv=p=0 "$video" 2>"$probe_errors" || true)
[ -s "$probe_errors" ] && fail "ffprobe found errors in $video: $(head -n 1 "$probe_errors")"
codec=${frames%%,*}
count=${frames##*,}
[ "$codec" = h264 ] || fail "$video holds no H.264 video stream (ffprobe: '$frames')"
if ! [[ "$count" =~ ^[0-9]+$ ]] || [ "$count" -eq 0 ]; then
  fail "ffprobe decoded no frame of $video"
fi
echo "run: OK: $count H.264 frames streamed from S to R ($mode) and decoded by ffprobe without errors"
rm -rf "$work"
