#!/usr/bin/env bash
# Mutation run: applies each small fault listed under tests/mutants/ to the library's sources,
# one at a time, rebuilds only the targets the faulty file goes into, runs the test programs
# that should notice, and prints which tests failed (caught it). A fault no test notices is
# either a missing check or an equivalent change; the data file says which, beside the fault.
#
# Works on the git tree of the current directory, so it can measure another worktree's tests
# with this tree's faults. Every mutated file is restored from a copy taken before the change,
# on every exit path; with --snapshot the sources are copied first and the tree is not touched.
#
# Usage: scripts/mutants.sh [--build DIR] [--mutants DIR] [--only REGEX] [--jobs N] [--budget SECONDS] [--snapshot]
#        scripts/mutants.sh --compare OLD.tsv NEW.tsv
# --only selects faults by id; --budget (default 240) is the most seconds the tests of one
# fault may take, so a fault that makes a test hang counts as caught by the test that timed out.
# Results: DIR/results.tsv (id, file, description, status, catching tests, seconds) and
# DIR/mutants.log (build and test output); --compare prints the faults OLD caught and NEW not.
#
# Faults file (tests/mutants/faults.txt), one fault a line, fields split on " | ", the last
# field taken whole (it may hold "|"):
#   id | file | test programs (regex) | description | sed expression, or patch:NAME.patch
# A description starting with "equivalent:" marks a fault that cannot be told apart from the
# original; it is still run, and reported as equivalent instead of survived.
set -uo pipefail

usage() {
  sed -n '/^# Usage:/,/--compare/p' "$0" | sed 's/^# //' >&2
  exit 2
}

compare() {  # old.tsv new.tsv: the faults OLD caught and NEW ran without catching
  local old=$1 new=$2
  awk -F'\t' '
    FNR == 1 { next }
    NR == FNR { if ($4 == "caught") was[$1] = $5; next }
    { now[$1] = $4 }
    END {
      lost = 0; absent = 0
      for (id in was) {
        if (!(id in now)) { absent++; continue }
        if (now[id] == "caught") continue
        printf "%-24s %s now; caught before by %s\n", id, now[id], was[id]
        lost++
      }
      printf "%d fault(s) caught before and not after", lost
      if (absent) printf " (%d caught before were not run after)", absent
      printf "\n"
    }' "$old" "$new"
}


build= mutants= only= jobs=2 snapshot=0 budget=240
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --mutants) mutants=$2; shift 2 ;;
    --only) only=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    --budget) budget=$2; shift 2 ;;
    --snapshot) snapshot=1; shift ;;
    --compare) [ $# -eq 3 ] || usage; compare "$2" "$3"; exit 0 ;;
    *) usage ;;
  esac
done
root=$(git rev-parse --show-toplevel 2>/dev/null) || { echo "not inside a git tree" >&2; exit 2; }
[ -n "$mutants" ] || mutants=$root/tests/mutants
[ -n "$build" ] || build=$root/build-mutants
mutants=$(cd "$mutants" && pwd) || exit 2
mkdir -p "$build" && build=$(cd "$build" && pwd)
faults=$mutants/faults.txt
[ -f "$faults" ] || { echo "no $faults" >&2; exit 2; }

export CCACHE_BASEDIR=${CCACHE_BASEDIR:-/work} CCACHE_DIR=${CCACHE_DIR:-/work/.ccache}
# With --snapshot, the sources (tracked and new files, as they are now, times kept so that
# unchanged files are not rebuilt) are copied into DIR/tree and built in DIR/obj: a tree
# someone is working in is never changed. Two snapshots share their compilations in the
# cache, since the paths relative to the build and the working directory are the same.
src=$root bin=$build
if [ "$snapshot" = 1 ]; then
  src=$build/tree bin=$build/obj
  mkdir -p "$src" "$bin"
  (cd "$root" && git ls-files -co --exclude-standard | while IFS= read -r f; do [ -f "$f" ] && echo "$f"; done) |
    sort -u > "$build/tree.list"
  (cd "$root" && tar -cf - --no-recursion -T "$build/tree.list") | tar -C "$src" -xf - || exit 1
  # Files gone from the tree since the last snapshot go from the copy too.
  (cd "$src" && find . -type f -printf '%P\n' | sort | comm -23 - "$build/tree.list" | xargs -r -d '\n' rm -f)
  export CCACHE_NOHASHDIR=1
fi
work=$(mktemp -d)
current=()  # files mutated right now, each with its copy in $work/orig/
restore() {
  local f
  for f in "${current[@]}"; do
    cp "$work/orig/$f" "$src/$f"   # new mtime on purpose: make rebuilds the original
  done
  current=()
}
cleanup() { restore; rm -rf "$work"; }
trap cleanup EXIT
# A signal stops the run after the command in progress; the EXIT trap then restores.
interrupted=0
trap 'interrupted=1' INT TERM HUP
check_interrupt() {
  [ "$interrupted" = 0 ] && return
  echo "interrupted: sources restored" >&2
  exit 130
}

log=$build/mutants.log
: > "$log"
say() { echo "$*" | tee -a "$log"; }

say "== configure and build $src into $bin"
cmake -S "$src" -B "$bin" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache \
  -DCMAKE_LINK_DEPENDS_NO_SHARED=ON -DKS_BUILD_BENCH=OFF >>"$log" 2>&1 &&
  cmake --build "$bin" -j "$jobs" >>"$log" 2>&1 || { echo "build of the unchanged tree failed, see $log" >&2; exit 1; }

# Test names per program: gtest cases are discovered per executable, the other tests keep
# their own name. A fault names programs, so renamed or merged cases are still selected.
(cd "$bin" && ctest --show-only=json-v1) > "$work/tests.json" || exit 1
python3 - "$work/tests.json" > "$work/tests.tsv" <<'EOF'
import json, sys
for t in json.load(open(sys.argv[1]))["tests"]:
    cmd = t.get("command") or [t["name"]]
    prog = cmd[0].rsplit("/", 1)[-1]
    if prog.startswith("python"):
        prog = t["name"]
    print(f"{prog}\t{t['name']}")
EOF

ctest_regex() {  # program regex -> anchored regex of the test names
  awk -F'\t' -v re="^($1)\$" '$1 ~ re { gsub(/[][.*+?(){}|^$\\]/, "\\\\&", $2); printf "%s%s", (n++ ? "|" : ""), $2 }
    END { if (!n) exit 1 }' "$work/tests.tsv" | sed 's/^/^(/; s/$/)$/'
}

# The build's targets, so that a test program a tree no longer has is not asked for.
cmake --build "$bin" --target help 2>/dev/null | sed -n 's/^\.\.\. \([^ ]*\).*/\1/p' > "$work/targets"
targets_for() {  # source file -> the build targets it goes into
  local t
  case "$1" in
    src_cpp/kssetter/server/*) set -- ksserver kssetter ksserver_test ksjournal_test ;;
    tools/*.cpp) set -- "$(basename "$1" .cpp)" ;;
    src/*|src_cpp/*) set -- ksutils ;;
    *) set -- all ;;
  esac
  for t in "$@"; do [ "$t" = all ] || grep -qx "$t" "$work/targets" && echo "$t"; done | paste -sd' '
}

# Fields: id, file, programs, description, change.
mapfile -t lines < <(grep -v -e '^[[:space:]]*#' -e '^[[:space:]]*$' "$faults")
parse() {  # line -> f_id f_file f_progs f_desc f_change
  local rest=$1
  f_id=${rest%% | *}; rest=${rest#* | }
  f_file=${rest%% | *}; rest=${rest#* | }
  f_progs=${rest%% | *}; rest=${rest#* | }
  f_desc=${rest%% | *}; f_change=${rest#* | }
}

# The unchanged tree must pass every selected test, or a failure would count as a catch.
all_progs=$(for l in "${lines[@]}"; do parse "$l"; [ -z "$only" ] || [[ $f_id =~ $only ]] || continue; echo "$f_progs"; done | paste -sd'|')
[ -n "$all_progs" ] || { echo "no fault matches --only '$only'" >&2; exit 2; }
base_re=$(ctest_regex "$all_progs") || { echo "no test matches $all_progs" >&2; exit 1; }
say "== baseline run of the selected tests"
broken=$bin/Testing/Temporary/LastTestsFailed.log
start=$SECONDS
rm -f "$broken"
(cd "$bin" && ctest -j "$jobs" -R "$base_re" >>"$log" 2>&1)
check_interrupt
base_secs=$((SECONDS - start))
# A test that fails once may be flaky under load: it must fail again to stop the run.
if [ -s "$broken" ] && (cd "$bin" && ctest -j "$jobs" -R "$base_re" --rerun-failed >>"$log" 2>&1; [ -s "$broken" ]); then
  say "the unchanged tree fails these tests; fix them first:"; sed 's/^[0-9]*:/  /' "$broken" | tee -a "$log"
  exit 1
fi
say "baseline: ${base_secs}s"

results=$build/results.tsv
printf 'id\tfile\tdescription\tstatus\tcatching tests\tseconds\n' > "$results"
caught=0 survived=0 equivalent=0 unapplied=0 uncompiled=0
run_start=$SECONDS
for line in "${lines[@]}"; do
  parse "$line"
  [ -z "$only" ] || [[ $f_id =~ $only ]] || continue
  t0=$SECONDS
  say ""
  say "== $f_id ($f_file): $f_desc"
  status= catchers=
  mkdir -p "$work/orig/$(dirname "$f_file")"
  # Apply: a sed expression must change the file; a patch must apply cleanly.
  if [[ $f_change == patch:* ]]; then
    patchfile=$mutants/${f_change#patch:}
    mapfile -t files < <(cd "$src" && git apply --numstat "$patchfile" 2>/dev/null | cut -f3)
    for f in "${files[@]}"; do mkdir -p "$work/orig/$(dirname "$f")"; cp "$src/$f" "$work/orig/$f"; done
    current=("${files[@]}")
    (cd "$src" && git apply "$patchfile") >>"$log" 2>&1 || status="did not apply"
    [ ${#files[@]} -gt 0 ] || status="did not apply"
  else
    [ -f "$src/$f_file" ] || { status="did not apply"; }
    if [ -z "$status" ]; then
      cp "$src/$f_file" "$work/orig/$f_file"
      current=("$f_file")
      sed -i -e "$f_change" "$src/$f_file" 2>>"$log" || status="did not apply"
      cmp -s "$src/$f_file" "$work/orig/$f_file" && status="did not apply"
    fi
  fi
  if [ -n "$status" ]; then
    say "!! DID NOT APPLY: $f_id: $f_change"
  else
    (cd "$src" && git diff --no-index -U0 "$work/orig/$f_file" "$f_file" 2>/dev/null | grep '^[-+][^-+]') >>"$log"
    targets=$(targets_for "$f_file")
    # shellcheck disable=SC2086
    cmake --build "$bin" -j "$jobs" --target $targets >>"$work/build.out" 2>&1
    built=$?
    check_interrupt
    if [ "$built" != 0 ]; then
      status="did not compile"
      say "!! DID NOT COMPILE: $f_id"; tail -20 "$work/build.out" >>"$log"
    else
      re=$(ctest_regex "$f_progs") || { re=; status="no tests"; say "!! no test program matches '$f_progs'"; }
      if [ -n "$re" ]; then
        # Every selected test stops at the fault's budget at the latest, so a fault that loops
        # shows up as a timed-out (failed) test rather than a hung run.
        # (ctest reads a local time of day and adds the zone itself).
        stop=$(date -d "@$((EPOCHSECONDS + budget))" '+%H:%M:%S')
        rm -f "$broken"
        (cd "$bin" && ctest -j "$jobs" -R "$re" --stop-time "$stop" >"$work/ctest.out" 2>&1)
        cat "$work/ctest.out" >>"$log"
        check_interrupt
        if [ -s "$broken" ]; then
          status=caught
          catchers=$(sed 's/^[0-9]*://' "$broken" | paste -sd, | sed 's/,/, /g')
        elif grep -q '100% tests passed' "$work/ctest.out"; then
          status=survived
          [[ $f_desc == equivalent:* ]] && status=equivalent
        else
          status="no tests"
        fi
      fi
    fi
    rm -f "$work/build.out"
  fi
  restore
  if [ "$status" != "did not apply" ]; then
    # shellcheck disable=SC2086
    cmake --build "$bin" -j "$jobs" --target $(targets_for "$f_file") >>"$log" 2>&1 ||
      { say "!! the restored tree does not build"; exit 1; }
  fi
  case "$status" in
    caught) caught=$((caught + 1)); say "-> caught by: $catchers" ;;
    survived) survived=$((survived + 1)); say "-> SURVIVED" ;;
    equivalent) equivalent=$((equivalent + 1)); say "-> survived (marked equivalent)" ;;
    "did not apply") unapplied=$((unapplied + 1)) ;;
    *) uncompiled=$((uncompiled + 1)); say "-> $status" ;;
  esac
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$f_id" "$f_file" "$f_desc" "$status" "$catchers" $((SECONDS - t0)) >> "$results"
done

say ""
say "== results ($(( (SECONDS - run_start) / 60 )) min $(( (SECONDS - run_start) % 60 )) s for the faults, baseline ${base_secs}s)"
awk -F'\t' 'NR > 1 { printf "%-30s %-16s %s\n", $1, $4, $5 }' "$results" | tee -a "$log"
say ""
say "$caught caught, $survived survived ($equivalent equivalent, $unapplied did not apply, $uncompiled did not compile or ran no test)"
say "results: $results"

# The tree must be exactly as it was.
if [ "$snapshot" = 0 ]; then
  for l in "${lines[@]}"; do parse "$l"; echo "$f_file"; done | sort -u | while read -r f; do
    [ -f "$src/$f" ] && ! git -C "$src" diff --quiet -- "$f" && say "note: $f differs from git (was it already changed before the run?)"
  done
fi
[ "$survived" -eq 0 ] && [ "$unapplied" -eq 0 ]
