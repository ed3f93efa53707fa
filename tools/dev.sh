#!/usr/bin/env bash
# Developer entry point: installs what is missing (Debian 12, as root), configures, builds, and
# runs the demo or the tests.
#   tools/dev.sh demo [ARGS]   build and run the ovrin-sm main job
#   tools/dev.sh check         build and run the unit suite (ctest -L unit): no sanitizer, fuzz,
#                              soak, package or complexity gate; the quick loop while working
#   tools/dev.sh test          build and run every test, then every reliability gate below
#   tools/dev.sh format [--fix]
#                              the tracked C and C++ files against .clang-format (tools/format_check.sh,
#                              which check and test run as the test format.tree): names the files that
#                              differ; --fix rewrites them in place
#   tools/dev.sh asan          the whole suite built with AddressSanitizer, UBSan and LeakSanitizer
#   tools/dev.sh tsan          the concurrency tests built with ThreadSanitizer
#   tools/dev.sh fuzz [SECS]   the fuzz targets (clang, libFuzzer) from their seeds, SECS each (12),
#                              stopping at the first failing input; test runs this
#   tools/dev.sh fuzz-long [HOURS]
#                              every fuzz target for HOURS (8) in turns of at most 30 minutes; never part
#                              of test. Corpus, logs and failing inputs stay in $OVRIN_FUZZ_DIR (default
#                              ~/.cache/ovrin-fuzz), so a run starts where the last one stopped; a failing
#                              input is kept and the run goes on. OVRIN_FUZZ_JOBS (1): processes per target
#   tools/dev.sh bench [ARGS]  the benchmarks beside protocol buffers, Release build; ARGS go to the
#                              benchmark binary (e.g. --benchmark_filter=medium); not part of test
#   tools/dev.sh soak [SESSIONS [ROUND_TRIPS]]
#                              memory over a long run: the demo for SESSIONS (1000000) and the library
#                              alone for ROUND_TRIPS (1000000), resident memory sampled every tenth;
#                              logs, tables and chart in $OVRIN_BUILD/soak/ (about 10 minutes; test
#                              runs only the shorter soak.demo and soak.library gates)
#   tools/dev.sh load [CLIENTS [SESSIONS]]
#                              one session manager serving CLIENTS (1000) clients of SESSIONS (100)
#                              sessions each with every fault mixed in: the standard load (each client
#                              pausing about 50 ms between exchanges: latency and memory), then the same
#                              clients without pauses (capacity: messages per core-second); reports,
#                              tables and chart in $OVRIN_BUILD/load/ (about a minute; test runs the
#                              small demo.load)
#   tools/dev.sh mutate [ARGS]  the mutation check (tools/mutate.py, faults in tools/mutations.txt): each
#                              fault planted alone in a scratch copy, the suite run; a table of what caught
#                              it and the kill rate per directory; not part of test (about half an hour)
# Build directories are $OVRIN_BUILD (default "build") and the same name with -asan, -tsan and
# -fuzz (and -bench) appended; set OVRIN_BUILD to keep a checkout's builds apart from another's.
set -euo pipefail
caller=$PWD # paths given on the command line (demo --trace FILE) are the caller's
cd "$(dirname "$0")/.."
root=$PWD

packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config libxml2-dev zlib1g-dev nettle-dev
          libjansson-dev python3 python3-pytest jq clang-format
          libgtest-dev libgmock-dev libbenchmark-dev valgrind)

# Only the benchmarks need these: the comparator's library and compiler.
bench_packages=(libprotobuf-dev protobuf-compiler)

install_missing() {
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        echo "tools/dev.sh: no dpkg-query/apt-get here, so nothing is installed; the build needs" \
             "(Debian package names): ${packages[*]} $*" >&2
        return 0
    fi
    local missing=()
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        echo "installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
}

# build DIR [TARGET...] [-- CMAKE_ARGS...]: configures DIR and builds the targets (all without any).
build() {
    local dir=$1; shift
    local targets=()
    while (($#)) && [ "$1" != "--" ]; do targets+=(--target "$1"); shift; done
    (($#)) && shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)" "${targets[@]}"
}

out=${OVRIN_BUILD:-build}

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer (+ LeakSanitizer).
gate_asan() {
    echo "== gate: AddressSanitizer, UBSan, LeakSanitizer: whole suite ($out-asan)"
    build "$out-asan" -- -DOVRIN_TESTS=ON -DOVRIN_SANITIZE=ON
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        ctest --test-dir "$out-asan" --output-on-failure -j "$(nproc)"
}

# The concurrency tests under ThreadSanitizer: any reported race fails them.
gate_tsan() {
    echo "== gate: ThreadSanitizer: concurrency tests ($out-tsan)"
    cmake -S . -B "$out-tsan" -G Ninja -DOVRIN_TESTS=ON -DOVRIN_TSAN=ON >/dev/null
    cmake --build "$out-tsan" -j "$(nproc)" --target ovrin_sm_tests
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir "$out-tsan" --output-on-failure -R '^Concurrency\.'
}

# The fuzz targets, read from the one list of them (fuzz/targets.cmake, which the build and the
# replay tests use too), each with its dictionary when it has one.
read -r -a fuzz_targets <<<"$(sed -n 's/^set(OVRIN_FUZZ_TARGETS \(.*\))$/\1/p' fuzz/targets.cmake)"
((${#fuzz_targets[@]})) || { echo "tools/dev.sh: no fuzz targets found in fuzz/targets.cmake" >&2; exit 1; }
fuzz_dictionary() {
    case "$1" in
        xml|xml_dtd|xml_check) echo "-dict=fuzz/xml.dict" ;;
        json) echo "-dict=fuzz/json.dict" ;;
        trace|elf|trace_files) echo "-dict=fuzz/files.dict" ;;
        trace_format) echo "-dict=fuzz/format.dict" ;;
    esac
}

build_fuzz() {
    CC=clang CXX=clang++ cmake -S . -B "$out-fuzz" -G Ninja -DOVRIN_TESTS=OFF -DOVRIN_FUZZ=ON >/dev/null
    cmake --build "$out-fuzz" -j "$(nproc)" --target "${fuzz_targets[@]/#/ovrin_fuzz_}" ovrin_fuzz_seeds
    rm -rf "$out-fuzz/seeds"
    "$out-fuzz/fuzz/ovrin_fuzz_seeds" "$out-fuzz/seeds"
}

# The last coverage line and the executions of a libFuzzer log, for the summary.
fuzz_summary() {
    echo "$(grep -E '^#[0-9]+' "$1" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true), \
$(grep -E '^stat::number_of_executed_units' "$1" | tr -d ' ' || true)"
}

# Each fuzz target from the seeds written from filled instances of every type, for a short time.
# New inputs collect in $out-fuzz/corpus, failing inputs in $out-fuzz/artifacts.
gate_fuzz() {
    local seconds=${1:-12}
    echo "== gate: fuzzing, ${seconds}s per target ($out-fuzz)"
    build_fuzz
    mkdir -p "$out-fuzz/artifacts"
    local target
    for target in "${fuzz_targets[@]}"; do
        mkdir -p "$out-fuzz/corpus/$target"
        local log="$out-fuzz/$target.log"
        # shellcheck disable=SC2046
        if ! "$out-fuzz/fuzz/ovrin_fuzz_$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
                -print_final_stats=1 -artifact_prefix="$out-fuzz/artifacts/$target-" $(fuzz_dictionary "$target") \
                "$out-fuzz/corpus/$target" "$out-fuzz/seeds/$target" >"$log" 2>&1; then
            tail -n 60 "$log"
            echo "fuzz target $target failed: reproduce with $out-fuzz/fuzz/ovrin_fuzz_$target" \
                 "$(grep -o "$out-fuzz/artifacts/$target-[a-z]*-[0-9a-f]*" "$log" | tail -n 1)" >&2
            return 1
        fi
        echo "$target: $(fuzz_summary "$log")"
    done
}

# Every fuzz target for hours, in turns, with a corpus kept outside the build tree. libFuzzer's
# fork mode keeps going past a failing input (kept in artifacts/) and merges what each job finds
# into the corpus.
fuzz_long() {
    local hours=${1:-8}
    local dir=${OVRIN_FUZZ_DIR:-$HOME/.cache/ovrin-fuzz} jobs=${OVRIN_FUZZ_JOBS:-1}
    build_fuzz
    mkdir -p "$dir/artifacts" "$dir/logs"
    local end=$(($(date +%s) + hours * 3600)) turn target
    turn=$((hours * 3600 / ${#fuzz_targets[@]}))
    ((turn > 1800)) && turn=1800
    ((turn < 60)) && turn=60
    echo "== fuzz-long: ${hours}h, turns of ${turn}s, $jobs job(s), corpus and findings in $dir"
    while (($(date +%s) < end)); do
        for target in "${fuzz_targets[@]}"; do
            local left=$((end - $(date +%s)))
            ((left <= 0)) && break
            mkdir -p "$dir/corpus/$target"
            local log="$dir/logs/$target-$(date +%Y%m%d-%H%M%S).log"
            # shellcheck disable=SC2046
            "$out-fuzz/fuzz/ovrin_fuzz_$target" -fork="$jobs" -ignore_crashes=1 -ignore_ooms=1 -ignore_timeouts=1 \
                -max_total_time=$((left < turn ? left : turn)) -rss_limit_mb=2048 -timeout=10 \
                -artifact_prefix="$dir/artifacts/$target-" $(fuzz_dictionary "$target") \
                "$dir/corpus/$target" "$out-fuzz/seeds/$target" >"$log" 2>&1 || true
            echo "$(date +%H:%M) $target: $(grep -E '^#[0-9]+' "$log" | tail -n 1)"
        done
    done
    local found
    found=$(find "$dir/artifacts" -type f -newer "$out-fuzz/seeds" | sort)
    if [ -n "$found" ]; then
        echo "failing inputs found (replay one with $out-fuzz/fuzz/ovrin_fuzz_TARGET FILE; minimize with" \
             "-minimize_crash=1 -runs=10000, then keep it in fuzz/regressions/TARGET):"
        echo "$found"
        return 1
    fi
    echo "no failing input"
}

cmd=${1:-test}
shift || true
case "$cmd" in
    demo)
        install_missing
        # The tool alone (no benchmarks, archives or tests); a build directory already configured
        # keeps its settings, so that the demo does not turn a test build's tests off.
        demo_config=()
        [ -f "$out/CMakeCache.txt" ] || demo_config=(-DOVRIN_TESTS=OFF)
        build "$out" ovrin-sm -- "${demo_config[@]}"
        tool=$out/ovrin-sm
        [[ $tool == /* ]] || tool=$root/$tool
        cd "$caller"
        exec "$tool" demo "$@"
        ;;
    check)
        install_missing
        # The everyday loop leaves the linked-in form (the static archives, about an eighth of a
        # full build) to test, bench and packaging, which build it.
        build "$out" -- -DOVRIN_TESTS=ON -DOVRIN_LINKED_IN=OFF
        ctest --test-dir "$out" --output-on-failure -j "$(nproc)" -L unit
        ;;
    test)
        install_missing
        build "$out" -- -DOVRIN_TESTS=ON -DOVRIN_LINKED_IN=ON
        ctest --test-dir "$out" --output-on-failure -j "$(nproc)"
        gate_tsan
        gate_fuzz
        gate_asan # last: the output ends with the whole suite's summary
        ;;
    format) install_missing; exec tools/format_check.sh "$@" ;;
    asan) install_missing; gate_asan ;;
    tsan) install_missing; gate_tsan ;;
    fuzz) install_missing; gate_fuzz "$@" ;;
    fuzz-long) install_missing; fuzz_long "$@" ;;
    bench)
        install_missing "${bench_packages[@]}"
        build "$out-bench" -- -DCMAKE_BUILD_TYPE=Release -DOVRIN_TESTS=OFF -DOVRIN_BENCH=ON -DOVRIN_LINKED_IN=ON
        exec "$out-bench/bench/ovrin_sm_bench" "$@"
        ;;
    mutate)
        install_missing python3
        exec nice python3 tools/mutate.py "$@"
        ;;
    soak)
        install_missing python3
        build "$out" -- -DOVRIN_TESTS=ON
        sessions=${1:-1000000}
        round_trips=${2:-1000000}
        mkdir -p "$out/soak"
        echo "== soak: $sessions demo sessions, then $round_trips library round trips ($out/soak)"
        "$out/ovrin-sm" demo --quiet --count "$sessions" --memory-every $((sessions >= 10 ? sessions / 10 : 1)) \
            | tee "$out/soak/demo.log" | grep -E '^(memory|verdict|[0-9]+ sessions)'
        "$out/tests/ovrin_soak_library" "$round_trips" | tee "$out/soak/library.log"
        python3 tools/plot_memory.py -o "$out/soak/memory.svg" "$out/soak/demo.log" "$out/soak/library.log" \
            | tee "$out/soak/memory.md"
        echo "chart: $out/soak/memory.svg (docs/memory-over-time.svg), tables: $out/soak/memory.md"
        ;;
    load)
        install_missing python3
        build "$out" ovrin-sm
        clients=${1:-1000}
        sessions=${2:-100}
        mkdir -p "$out/load"
        # The stranger needs root (it becomes another user); as root its passage is through a group.
        group=()
        [ "$(id -u)" -eq 0 ] && group=(--group users)
        for run in standard capacity; do
            think=50000
            [ $run = capacity ] && think=0
            echo "== load ($run): $clients clients x $sessions sessions, pauses of about ${think} us, every fault"
            "$out/ovrin-sm" demo --clients "$clients" --count "$sessions" --think $think --faults all "${group[@]}" \
                --json > "$out/load/$run.json" 2> "$out/load/$run.log" || {
                cat "$out/load/$run.log"; jq . "$out/load/$run.json"; exit 1; }
            jq -c '{verdict, messages_per_second, per_core: .manager.messages_per_core_second, latency_us, rss_kib: .manager.rss_kib}' \
                "$out/load/$run.json"
        done
        python3 tools/plot_load.py -o "$out/load/load.svg" "$out/load/standard.json" "$out/load/capacity.json" \
            | tee "$out/load/load.md"
        echo "chart: $out/load/load.svg (docs/load-over-time.svg), tables: $out/load/load.md"
        ;;
    *)
        echo "usage: tools/dev.sh demo|check|test|format|asan|tsan|fuzz|fuzz-long|bench|soak|load|mutate" >&2
        exit 2
        ;;
esac
