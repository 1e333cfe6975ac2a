# The table of bench/brokers from its runs, one a line:
#   broker case run deliveries/s median_us p99_us cpu_us_per_delivery peak_rss_mib loadgen_cpu_pct
# Each figure is the median over the runs, taken column by column.
# Variables: cases (the case names, one a line), throughput_cases (how many of the first cases
# count towards min-ratio), version (mosquitto's), args (the example broker's extra options).
{
  key = $1 SUBSEP $2
  runs[key]++
  for (column = 4; column <= 9; column++) {
    values[key, column, runs[key]] = $column
  }
}

function median(key, column,    count, i, j, sorted, swap) {
  count = runs[key]
  for (i = 1; i <= count; i++) {
    sorted[i] = values[key, column, i] + 0
  }
  for (i = 2; i <= count; i++) {
    for (j = i; j > 1 && sorted[j - 1] > sorted[j]; j--) {
      swap = sorted[j]; sorted[j] = sorted[j - 1]; sorted[j - 1] = swap
    }
  }
  return count % 2 ? sorted[(count + 1) / 2] : (sorted[count / 2] + sorted[count / 2 + 1]) / 2
}

# "mosquitto / example" for one column, with the given format.
function pair(index_, column, format) {
  return sprintf(format " / " format, median("mosquitto" SUBSEP index_, column), median("example" SUBSEP index_, column))
}

END {
  count = split(cases, names, "\n")
  printf "mosquitto %s and the example broker (%s); medians of %d runs; msg/s counts deliveries; " \
         "pairs are mosquitto / example.\n\n", version, args == "" ? "default options" : args, runs["mosquitto" SUBSEP 0]
  print "| case | mosquitto msg/s | example msg/s | ratio | median µs | p99 µs | broker CPU µs/msg | peak RSS MiB | loadgen CPU % |"
  print "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
  minimum = -1
  for (index_ = 0; index_ < count; index_++) {
    mosquitto = median("mosquitto" SUBSEP index_, 4)
    example = median("example" SUBSEP index_, 4)
    ratio = mosquitto > 0 ? example / mosquitto : 0
    if (index_ < throughput_cases && (minimum < 0 || ratio < minimum)) {
      minimum = ratio
    }
    printf "| %s | %.0f | %.0f | %.2f | %s | %s | %s | %s | %s |\n", names[index_ + 1], mosquitto, example, ratio,
           pair(index_, 5, "%.0f"), pair(index_, 6, "%.0f"), pair(index_, 7, "%.1f"), pair(index_, 8, "%.1f"),
           pair(index_, 9, "%.0f")
  }
  printf "\nbrokers: min-ratio=%.2f\n", minimum
}
