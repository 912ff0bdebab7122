# Of the report of rvx_bench: lines "NAME NUMBER" of what bench/run puts in proportion, from medians of the repetitions.

def median: sort | .[length / 2 | floor];

# The power of the size that the time grows with, of pairs of both: least squares of the logarithms.
def exponent:
    map(map(log)) | length as $n | (map(.[0]) | add) as $x | (map(.[1]) | add) as $y
    | (map(.[0] * .[1]) | add) as $xy | (map(.[0] * .[0]) | add) as $xx
    | ($n * $xy - $x * $y) / ($n * $xx - $x * $x);

[.benchmarks[] | select(.run_type == "iteration")] | group_by(.run_name)
| map({key: .[0].run_name, value: map(.real_time) | median}) | from_entries as $time
| def of($what; $disks; $arrays): $time["\($what)/\($disks)/\($arrays)/manual_time"];
("FirstScan", "WorkerPass", "Topology") as $what
| ((0, 64) as $arrays
    | "\($what)_by_disks_\($arrays) \([(25, 50, 100, 200, 400, 700) | [., of($what; .; $arrays)]] | exponent)"),
  "\($what)_by_arrays \([(8, 64, 256) | [., of($what; 50; .) - of($what; 50; 0)]] | exponent)",
  if $what == "Topology" then $time | to_entries[] | select(.key | contains("/") | not) | "\(.key) \(.value)" else empty end
