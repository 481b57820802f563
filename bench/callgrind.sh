#!/usr/bin/env bash
# Instructions per logging call, counted by callgrind.
#
#   bench/callgrind.sh [BUILD_DIR] [N]
#
# BUILD_DIR defaults to build-bench next to this folder and must hold
# bench/bench_callgrind_driver; N (default 200000) is the number of counted
# events. Set SCENARIOS to choose ("disabled buffer format async ...").
#
# Each scenario runs once with --collect-atstart=no: the driver switches
# collection on around its loop of N calls (after a warm-up), and collection
# is per thread, so the count is the calling thread's instructions inside the
# logging calls plus a few of loop overhead. For "async" that is the producer
# side only: the queueing, not the delivery thread's formatting.
#
# "async" is also run twice more counting the whole process from the start,
# with N and with 0 events; the difference over N is the whole cost of an
# event on every thread (producer, delivery thread including its spin-waits,
# the time thread), printed as "async (all threads)". Threads run one at a
# time under valgrind, so the delivery thread's share (how often it wakes,
# how large its batches are) differs from a native run.
#
# The callgrind files stay in OUT_DIR (default BUILD_DIR/callgrind) for
# callgrind_annotate, e.g.
#   callgrind_annotate --inclusive=yes OUT_DIR/callgrind.out.format
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build="$(cd "${1:-$here/../build-bench}" && pwd)"
n="${2:-200000}"
driver="$build/bench/bench_callgrind_driver"
out="${OUT_DIR:-$build/callgrind}"
scenarios="${SCENARIOS:-disabled buffer format async file spdlog_disabled spdlog_format spdlog_async spdlog_file}"

if [[ ! -x "$driver" ]]; then
    echo "no driver at $driver: build the target bench_callgrind_driver first" >&2
    exit 1
fi
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 1; }
mkdir -p "$out"

# The total of the first event (Ir) in a callgrind output file.
total_ir() {
    awk '/^(summary|totals):/ { print $2; exit }' "$1"
}

run_callgrind() {  # file scenario events counted|whole
    local file="$1" scenario="$2" events="$3" mode="$4"
    local -a collect=(--collect-atstart=no) extra=()
    if [[ "$mode" == whole ]]; then
        collect=(--collect-atstart=yes)
        extra=(--whole)
    fi
    if ! valgrind --tool=callgrind --callgrind-out-file="$file" "${collect[@]}" \
            "$driver" "$scenario" "$events" "${extra[@]}" >"$file.log" 2>&1; then
        echo "callgrind run failed for $scenario, see $file.log" >&2
        return 1
    fi
    if grep -q "unknown scenario\|usage:" "$file.log"; then
        return 1
    fi
}

declare -A per_event
printf '%-22s %14s %12s\n' "scenario" "Ir counted" "Ir/event"
for s in $scenarios; do
    file="$out/callgrind.out.$s"
    if ! run_callgrind "$file" "$s" "$n" counted; then
        printf '%-22s %14s %12s\n' "$s" "-" "(skipped)"
        continue
    fi
    ir="$(total_ir "$file")"
    per_event[$s]="$(awk -v ir="$ir" -v n="$n" 'BEGIN { printf "%.1f", (n > 0 ? ir / n : 0) }')"
    printf '%-22s %14s %12s\n' "$s" "$ir" "${per_event[$s]}"
done

if [[ " $scenarios " == *" async "* && "$n" -gt 0 ]]; then
    full="$out/callgrind.out.async_all"
    empty="$out/callgrind.out.async_all0"
    if run_callgrind "$full" async "$n" whole &&
        run_callgrind "$empty" async 0 whole; then
        a="$(total_ir "$full")"
        b="$(total_ir "$empty")"
        per_event[async_all]="$(awk -v a="$a" -v b="$b" -v n="$n" 'BEGIN { printf "%.1f", (a - b) / n }')"
        printf '%-22s %14s %12s\n' "async (all threads)" "$((a - b))" "${per_event[async_all]}"
    fi
fi

ratio() {  # zvlog-key spdlog-key label
    if [[ -n "${per_event[$1]:-}" && -n "${per_event[$2]:-}" ]]; then
        awk -v z="${per_event[$1]}" -v s="${per_event[$2]}" -v l="$3" \
            'BEGIN { if (s > 0) printf "  %-22s %8.2f  (%s / %s Ir)\n", l, z / s, z, s }'
    fi
}
echo
echo "zvlog / spdlog instructions per event:"
ratio disabled spdlog_disabled "disabled"
ratio format spdlog_format "formatting"
ratio async spdlog_async "async producer"
ratio file spdlog_file "file"
echo
echo "callgrind files: $out (callgrind_annotate <file> for the breakdown)"
