#!/usr/bin/env bash
# Runs Arbor's benchmark suite and prints one table: every figure beside the
# anchor it is measured against, each measured several times in this run on
# this machine (median and min-max of the repetitions, and the ratio to its
# anchor per repetition), with the machine's cores and load. It ends with
# one line per goal, for scripts:
#
#   goal P1 K=8: 0.61 of memcpy bound (goal 0.5) met
#
# Benchmarks never pass or fail: the exit status is non-zero only when the
# build fails, or, with --smoke, when a case could not run at all.
#
# Usage: scripts/bench.sh [--smoke] [--no-wait] [--build-dir DIR] [--reps N]
#   --smoke      every case once, briefly and at a small scale, in whatever
#                build DIR holds (configured as Release when it holds none):
#                shows that the programs build and run (CI). Figures and
#                goal lines mean nothing then.
#   --no-wait    start at once, however loaded the machine is. By default
#                the run waits (at most ARBOR_BENCH_WAIT seconds, 600; a
#                line every 30 s) until the 1-minute load average is below
#                1.0, and prints the load beside the table either way.
#   --build-dir  the build directory (default build-release), configured
#                and built in Release with Ninja; only the benchmark
#                programs are built.
#   --reps N     repetitions of every case (default 5; the memory and
#                fan-out cases 3). Each repetition is a fresh process.
# The raw results (Google Benchmark JSON, one file per case and repetition)
# stay in DIR/bench-results/<time>/, beside a copy of the table.
set -euo pipefail
cd "$(dirname "$0")/.."

smoke=0 wait_load=1 build_dir=build-release reps=5
while [ $# -gt 0 ]; do
  case "$1" in
    --smoke) smoke=1; wait_load=0 ;;
    --no-wait) wait_load=0 ;;
    --build-dir) build_dir=${2:?--build-dir needs a directory}; shift ;;
    --reps) reps=${2:?--reps needs a number}; shift ;;
    -h|--help) sed -n '2,/^set -euo/{/^set/!p}' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done
case "$reps" in ''|*[!0-9]*|0) echo "bench.sh: --reps wants a number of 1 or more" >&2; exit 2 ;; esac
slow_reps=$(( reps < 3 ? reps : 3 ))
if [ "$smoke" -eq 1 ]; then reps=1; slow_reps=1; fi

# ------------------------------------------------------------------ build
bash scripts/setup.sh  # missing Debian packages (Google Benchmark, GStreamer's tools)
targets=(arbor_bench_anchors arbor_bench_chain arbor_bench_incoming
         arbor_bench_control arbor_bench_fanout arbor_bench_fanout_peer)
if [ "$smoke" -eq 0 ] || [ ! -f "$build_dir/CMakeCache.txt" ]; then
  echo "bench: configuring $build_dir (Release)" >&2
  if ! cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
       -DARBOR_BUILD_BENCH=ON >/dev/null; then
    echo "bench: configuring $build_dir failed; run the cmake line above by hand to see why" >&2
    exit 1
  fi
fi
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build_dir/CMakeCache.txt")
echo "bench: building the benchmark programs in $build_dir ($build_type)" >&2
if ! cmake --build "$build_dir" --target "${targets[@]}" >"$build_dir/bench-build.log" 2>&1; then
  tail -30 "$build_dir/bench-build.log" >&2
  echo "bench: the build failed (log: $build_dir/bench-build.log)" >&2
  exit 1
fi
bin="$build_dir/bench"

# --------------------------------------------------------- a quiet machine
load1() { cut -d' ' -f1 /proc/loadavg; }
below() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }
if [ "$wait_load" -eq 1 ]; then
  limit=${ARBOR_BENCH_WAIT:-600}
  waited=0
  while ! below "$(load1)" 1.0 && [ "$waited" -lt "$limit" ]; do
    echo "bench: load average $(load1) (1 min), waiting for it to fall below 1.0 (${waited}s of at most ${limit}s)" >&2
    sleep 30
    waited=$((waited + 30))
  done
  below "$(load1)" 1.0 || echo "bench: the load stayed at $(load1); measuring anyway" >&2
fi

# ------------------------------------------------------------------ cases
# key | program | Google Benchmark filter | repetitions
cases="
memcpy_hot|anchors|^BM_MemcpyHot/|$reps
memcpy_cold|anchors|^BM_MemcpyCold/|$reps
queue_188|anchors|^BM_TwoCopyQueue/bytes:188/|$reps
queue_1400|anchors|^BM_TwoCopyQueue/bytes:1400/|$reps
queue_63488|anchors|^BM_TwoCopyQueue/bytes:63488/|$reps
gst_1|anchors|^BM_GstTee/branches:1/|$reps
gst_2|anchors|^BM_GstTee/branches:2/|$reps
gst_8|anchors|^BM_GstTee/branches:8/|$reps
p1_1|chain|^BM_ChainToSinks/sinks:1/|$reps
p1_2|chain|^BM_ChainToSinks/sinks:2/|$reps
p1_8|chain|^BM_ChainToSinks/sinks:8/|$reps
p2_188|incoming|^BM_LanMediaIncoming/bytes:188/|$reps
p2_1400|incoming|^BM_LanMediaIncoming/bytes:1400/|$reps
p2_63488|incoming|^BM_LanMediaIncoming/bytes:63488/|$reps
p4_dial_thread|control|^BM_DialHangup/chain:0/window:64/|$reps
p4_dial_own|control|^BM_DialHangup/chain:1/window:64/|$reps
p4_dial_shared|control|^BM_DialHangup/chain:2/window:64/|$reps
p4_dial_serial|control|^BM_DialHangup/chain:0/window:1/|$reps
p4_stop_thread|control|^BM_Stop/chain:0/sessions:1000/|$reps
p4_stop_own|control|^BM_Stop/chain:1/sessions:1000/|$reps
p4_stop_shared|control|^BM_Stop/chain:2/sessions:1000/|$reps
p5_shared_1000|control|^BM_IdleSessions/chain:2/sessions:1000/|$slow_reps
p5_shared_10000|control|^BM_IdleSessions/chain:2/sessions:10000/|$slow_reps
p5_own_1000|control|^BM_IdleSessions/chain:1/sessions:1000/|$slow_reps
p5_own_10000|control|^BM_IdleSessions/chain:1/sessions:10000/|$slow_reps
p5_thread_1000|control|^BM_IdleSessions/chain:0/sessions:1000/|$slow_reps
p5_thread_10000|control|^BM_IdleSessions/chain:0/sessions:10000/|$slow_reps
p5_churn_thread|control|^BM_Churn/chain:0/|$slow_reps
p5_churn_own|control|^BM_Churn/chain:1/|$slow_reps
p5_churn_shared|control|^BM_Churn/chain:2/|$slow_reps
fanout_1|fanout|^BM_FanOut/peers:1/|$slow_reps
fanout_4|fanout|^BM_FanOut/peers:4/|$slow_reps
fanout_8|fanout|^BM_FanOut/peers:8/|$slow_reps
"

# The table: id | label | case | counter | unit | anchor case | anchor counter
# | factor | what the anchor is. The ratio of a repetition is the row's value
# over factor x the anchor's value in the same repetition round.
rows="
hot|anchor: memcpy of 63,488 B, hot|memcpy_hot|value|copies/s||||
cold|anchor: memcpy of 63,488 B, cold|memcpy_cold|value|copies/s||||
q188|anchor: two-copy queue, 188 B|queue_188|value|frames/s||||
q1400|anchor: two-copy queue, 1,400 B|queue_1400|value|frames/s||||
q63488|anchor: two-copy queue, 63,488 B|queue_63488|value|frames/s||||
gst1|anchor: GStreamer tee, 1 branch|gst_1|value|buffers/s||||
gst2|anchor: GStreamer tee, 2 branches|gst_2|value|buffers/s||||
gst8|anchor: GStreamer tee, 8 branches|gst_8|value|buffers/s||||
tcp1|anchor: raw TCP fan-out, 1 receiver|fanout_1|anchor|chunks/s||||
tcp4|anchor: raw TCP fan-out, 4 receivers|fanout_4|anchor|chunks/s||||
tcp8|anchor: raw TCP fan-out, 8 receivers|fanout_8|anchor|chunks/s||||
p1_1|P1 source > pass > 1 sink|p1_1|value|chunks/s|memcpy_hot|value|0.5|memcpy bound
p1_2|P1 source > pass > 2 sinks|p1_2|value|chunks/s|memcpy_hot|value|0.5|memcpy bound
p1_8|P1 source > pass > 8 sinks|p1_8|value|chunks/s|memcpy_hot|value|0.5|memcpy bound
p1_8g|P1 8 sinks, against GStreamer|p1_8|value|chunks/s|gst_8|value|1|GStreamer tee x8
p2_188|P2 LAN peer > sink, 188 B|p2_188|value|frames/s|queue_188|value|1|two-copy queue
p2_1400|P2 LAN peer > sink, 1,400 B|p2_1400|value|frames/s|queue_1400|value|1|two-copy queue
p2_63488|P2 LAN peer > sink, 63,488 B|p2_63488|value|frames/s|queue_63488|value|1|two-copy queue
net1|LAN fan-out (libarbor-net), 1 peer|fanout_1|value|chunks/s|fanout_1|anchor|1|raw TCP
net4|LAN fan-out (libarbor-net), 4 peers|fanout_4|value|chunks/s|fanout_4|anchor|1|raw TCP
net8|LAN fan-out (libarbor-net), 8 peers|fanout_8|value|chunks/s|fanout_8|anchor|1|raw TCP
d_thr|P4 dial-start-hang-up, own root + thread|p4_dial_thread|value|sessions/s||||
d_own|P4 dial-start-hang-up, own root|p4_dial_own|value|sessions/s||||
d_shr|P4 dial-start-hang-up, shared root|p4_dial_shared|value|sessions/s||||
d_ser|P4 the same one at a time, own root + thread|p4_dial_serial|value|sessions/s||||
s_thr|P4 SysExit, 1,000 own roots + threads|p4_stop_thread|value|ms||||
s_own|P4 SysExit, 1,000 own roots|p4_stop_own|value|ms||||
s_shr|P4 SysExit, 1,000 on a shared root|p4_stop_shared|value|ms||||
m_s1k|P5 idle, shared root, 1,000 sessions|p5_shared_1000|value|B/session||||
m_s10k|P5 idle, shared root, 10,000 sessions|p5_shared_10000|value|B/session||||
m_o1k|P5 idle, own roots, 1,000 sessions|p5_own_1000|value|B/session||||
m_o10k|P5 idle, own roots, 10,000 sessions|p5_own_10000|value|B/session||||
m_t1k|P5 idle, own roots + threads, 1,000|p5_thread_1000|value|B/session||||
m_t10k|P5 idle, own roots + threads, 10,000|p5_thread_10000|value|B/session||||
m_h_s10k|  (heap only) shared root, 10,000|p5_shared_10000|heap_per_session|B/session||||
m_h_o10k|  (heap only) own roots, 10,000|p5_own_10000|heap_per_session|B/session||||
m_h_t10k|  (heap only) own roots + threads, 10,000|p5_thread_10000|heap_per_session|B/session||||
c_thr|P5 churn 100,000, own root + thread|p5_churn_thread|value|KiB growth||||
c_own|P5 churn 100,000, own root|p5_churn_own|value|KiB growth||||
c_shr|P5 churn 100,000, shared root|p5_churn_shared|value|KiB growth||||
"

# The goals: name | row | ratio or value | >=, <= or < | threshold | what |
# scale (the value is multiplied by it before it is judged and shown).
# "No growth" over a churn is judged against 256 KiB over its second 50,000
# sessions: the smallest block the engine keeps per session (a sid) would
# leak 1.5 MiB there, while the allocator's and the threads' own settling
# stays well below.
goals="
P1 K=1|p1_1|ratio|>=|0.5|of memcpy bound|1
P1 K=2|p1_2|ratio|>=|0.5|of memcpy bound|1
P1 K=8|p1_8|ratio|>=|0.5|of memcpy bound|1
P1 K=8 against GStreamer|p1_8g|ratio|>=|5|x GStreamer tee|1
P2 188 B|p2_188|ratio|>=|0.8|of two-copy queue|1
P2 1400 B|p2_1400|ratio|>=|0.8|of two-copy queue|1
P2 63488 B|p2_63488|ratio|>=|0.8|of two-copy queue|1
P4 dial own root + thread|d_thr|value|>=|20000|sessions/s|1
P4 dial own root|d_own|value|>=|20000|sessions/s|1
P4 dial shared root|d_shr|value|>=|20000|sessions/s|1
P4 stop 1000 sessions|s_thr|value|<|1|s|0.001
P5 idle shared root 1000|m_s1k|value|<=|2048|B/session|1
P5 idle shared root 10000|m_s10k|value|<=|2048|B/session|1
P5 idle own roots 1000|m_o1k|value|<=|2048|B/session|1
P5 idle own roots 10000|m_o10k|value|<=|2048|B/session|1
P5 idle own roots + threads 1000|m_t1k|value|<=|2048|B/session|1
P5 idle own roots + threads 10000|m_t10k|value|<=|2048|B/session|1
P5 churn own root + thread|c_thr|value|<=|256|KiB growth|1
P5 churn own root|c_own|value|<=|256|KiB growth|1
P5 churn shared root|c_shr|value|<=|256|KiB growth|1
LAN fan-out N=1|net1|ratio|>=|0.65|of raw TCP|1
LAN fan-out N=4|net4|ratio|>=|0.65|of raw TCP|1
LAN fan-out N=8|net8|ratio|>=|0.65|of raw TCP|1
"

# ------------------------------------------------------------------- runs
stamp=$(date -u +%Y%m%d-%H%M%S)
out="$build_dir/bench-results/$stamp"
mkdir -p "$out"
results="$out/results.txt"
: >"$results"
load_start=$(cut -d' ' -f1-3 /proc/loadavg)
started=$(date +%s)
export ARBOR_BENCH_SMOKE=$smoke
ncases=$(grep -c '|' <<<"$cases")
failures=0

# Pulls "value", "anchor" and the other counters (or the error) out of one
# Google Benchmark JSON file: lines "<case> <round> <counter> <number>" or
# "<case> <round> ERROR <message>".
extract() {
  awk -v key="$1" -v round="$2" '
    /"benchmarks": \[/ { inside = 1; next }
    !inside { next }
    /"error_message":/ {
      sub(/^[^:]*: *"/, ""); sub(/",?[ \t]*$/, "")
      print key, round, "ERROR", $0; err = 1; next
    }
    /^ *"[A-Za-z_\/]+": -?[0-9.]+(e[-+][0-9]+)?,?$/ {
      name = $1; gsub(/[":]/, "", name); v = $2; sub(/,$/, "", v)
      if (name !~ /^(family_index|per_family_instance_index|repetitions|repetition_index|threads|iterations|real_time|cpu_time)$/)
        print key, round, name, v
    }' "$3"
}

round=1
max_rounds=$reps
while [ "$round" -le "$max_rounds" ]; do
  i=0
  while IFS='|' read -r key prog filter n; do
    [ -n "$key" ] || continue
    i=$((i + 1))
    [ "$round" -le "$n" ] || continue
    line=$(printf 'bench: round %d/%d, case %2d/%d: %-16s' "$round" "$max_rounds" "$i" "$ncases" "$key")
    if [ -t 2 ]; then printf '\r%s' "$line" >&2; else printf '%s' "$line" >&2; fi
    json="$out/$key.$round.json"
    t0=$(date +%s.%N)
    status=0
    timeout 300 "$bin/arbor_bench_$prog" --benchmark_filter="$filter" \
      --benchmark_out="$json" --benchmark_out_format=json \
      >"$out/$key.$round.log" 2>&1 || status=$?
    t1=$(date +%s.%N)
    if [ "$status" -ne 0 ] || [ ! -s "$json" ]; then
      echo "$key $round ERROR the program ended with status $status (log: $out/$key.$round.log)" >>"$results"
    else
      extract "$key" "$round" "$json" >>"$results"
    fi
    if grep -q "^$key $round ERROR" "$results"; then
      if ! grep -q "^$key $round ERROR skipped:" "$results"; then failures=$((failures + 1)); fi
      shown="not measured"
    else
      shown=$(awk -v k="$key" -v r="$round" '$1 == k && $2 == r && $3 == "value" { printf "%.4g", $4 }' "$results")
    fi
    secs=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.1f", b - a }')
    if [ -t 2 ]; then printf '\r%s %s (%s s)\033[K' "$line" "$shown" "$secs" >&2
    else printf ' %s (%s s)\n' "$shown" "$secs" >&2; fi
  done <<<"$cases"
  round=$((round + 1))
done
[ -t 2 ] && echo >&2
load_end=$(cut -d' ' -f1-3 /proc/loadavg)
elapsed=$(( $(date +%s) - started ))

# ------------------------------------------------------------------ table
cpu=$(sed -n 's/^model name[^:]*: *//p' /proc/cpuinfo | head -1)
mem=$(awk '/^MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)
{
  echo "Arbor benchmark suite, $(date -u '+%Y-%m-%d %H:%M UTC')$([ "$smoke" -eq 1 ] && echo ', SMOKE RUN: the figures mean nothing')"
  echo "machine: $(nproc) cores ($cpu), $mem, Linux $(uname -r)"
  echo "load average (1, 5, 15 min): $load_start at the start, $load_end at the end"
  echo "build: $build_dir ($build_type); $reps repetitions ($slow_reps for memory and fan-out), each a fresh process; ${elapsed} s in all"
  echo
  awk -F'|' -v results="$results" -v rowspec="$rows" -v goalspec="$goals" '
    function fmt(x,   a) {
      a = x < 0 ? -x : x
      if (a >= 1e6) return sprintf("%.3gM", x / 1e6)
      if (a >= 1e4) return sprintf("%.3gk", x / 1e3)
      if (a >= 100) return sprintf("%.0f", x)
      if (a >= 10) return sprintf("%.1f", x)
      return sprintf("%.2f", x)
    }
    # Median, min and max of the n numbers in v[1..n], sorted in place.
    function stats(v, n,   i, j, t) {
      for (i = 2; i <= n; i++) {
        t = v[i]
        for (j = i - 1; j >= 1 && v[j] > t; j--) v[j + 1] = v[j]
        v[j + 1] = t
      }
      s_min = v[1]; s_max = v[n]
      s_med = n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    BEGIN {
      while ((getline line < results) > 0) {
        split(line, f, " ")
        if (f[3] == "ERROR") {
          msg = line; sub(/^[^ ]+ [^ ]+ ERROR /, "", msg); err[f[1]] = msg
        } else {
          val[f[1], f[2], f[3]] = f[4]
          if (f[2] > rounds) rounds = f[2]
        }
      }
      printf "%-44s %-11s %9s  %-19s  %-24s %s\n", "figure", "unit", "median", "min - max", "anchor (median)", "ratio: median (min - max)"
      nrows = split(rowspec, rl, "\n")
      for (r = 1; r <= nrows; r++) {
        if (rl[r] == "") continue
        split(rl[r], c, "|")
        id = c[1]; key = c[3]; ctr = c[4]; akey = c[6]; actr = c[7]; fac = c[8] + 0
        n = 0; na = 0; nr = 0; delete v; delete av; delete rv
        for (k = 1; k <= rounds; k++) {
          if ((key, k, ctr) in val) v[++n] = val[key, k, ctr]
          if (akey != "" && (akey, k, actr) in val) {
            av[++na] = val[akey, k, actr] * fac
            if ((key, k, ctr) in val && av[na] > 0) rv[++nr] = val[key, k, ctr] / av[na]
          }
        }
        if (n == 0) {
          why = key in err ? err[key] : "no result"
          printf "%-44s %-11s %9s  %s\n", c[2], c[5], "-", "not measured: " why
          continue
        }
        stats(v, n); med[id] = s_med
        range = fmt(s_min) " - " fmt(s_max)
        anchor = ""; ratio = ""
        if (akey != "" && na > 0) {
          stats(av, na); anchor = c[9] " " fmt(s_med)
          if (nr > 0) {
            stats(rv, nr); rmed[id] = s_med
            ratio = sprintf("%.2f (%.2f - %.2f)", s_med, s_min, s_max)
          }
        } else if (akey != "") {
          anchor = c[9] ": not measured"
        }
        printf "%-44s %-11s %9s  %-19s  %-24s %s\n", c[2], c[5], fmt(med[id]), range, anchor, ratio
      }
      print ""
      ngoals = split(goalspec, gl, "\n")
      for (g = 1; g <= ngoals; g++) {
        if (gl[g] == "") continue
        split(gl[g], c, "|")
        id = c[2]; what = c[3]; op = c[4]; limit = c[5] + 0; text = c[6]; scale = c[7] + 0
        have = what == "ratio" ? (id in rmed) : (id in med)
        if (!have) { printf "goal %s: not measured (goal %s %s)\n", c[1], op, c[5]; continue }
        x = (what == "ratio" ? rmed[id] : med[id]) * scale
        met = op == ">=" ? x >= limit : op == "<=" ? x <= limit : x < limit
        shown = what == "ratio" || (x < 10 && x > -10) ? sprintf("%.2f", x) : sprintf("%.0f", x)
        bound = op == ">=" ? (what == "ratio" ? c[5] : "at least " c[5]) : op == "<=" ? "at most " c[5] : "under " c[5]
        printf "goal %s: %s %s (goal %s) %s\n", c[1], shown, text, bound, met ? "met" : "short"
      }
    }' /dev/null
} | tee "$out/table.txt"
echo "bench: raw results in $out" >&2

if [ "$smoke" -eq 1 ] && [ "$failures" -gt 0 ]; then
  echo "bench: $failures case(s) could not run; see the logs in $out" >&2
  exit 1
fi
exit 0
