# Shared by fuzz/run and fuzz/campaign: builds the libFuzzer harnesses (preset fuzz: clang, ASan +
# UBSan), lists the harnesses to run, and sets the sanitizer options of every run.
# Usage: source fuzz/common.sh [HARNESS...]   (none given: every harness with a corpus in fuzz/corpus/)
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz >/dev/null

HARNESSES=("$@")
if [[ ${#HARNESSES[@]} -eq 0 ]]; then
  for dir in fuzz/corpus/*/; do HARNESSES+=("$(basename "$dir")"); done
fi
for harness in "${HARNESSES[@]}"; do
  [[ -x build/fuzz/fuzz/fuzz_$harness ]] || { echo "no harness named $harness" >&2; exit 2; }
done

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:allocator_may_return_null=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# The session records that Delete keeps on purpose are the only allocations allowed to outlive a run.
export LSAN_OPTIONS=suppressions=$ROOT/tests/lsan.supp:print_suppressions=0
