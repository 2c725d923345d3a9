#!/usr/bin/env python3
"""Prints one table from what bench/run.sh collected: Google Benchmark's JSON
output of each benchmark program and callgrind's totals of the gateway driver.

    summary.py RESULTS_DIR CALLGRIND_OPERATIONS

Exits 1 when a benchmark reported an error or an alert went missing; a missed
performance target is shown in the table, not turned into a failure, since a
busy neighbour on the machine can cost one.
"""
import json
import os
import sys

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def base_name(run_name):
    """A run's name without the options Google Benchmark appends ("/repeats:5", "/real_time")."""
    return "/".join(part for part in run_name.split("/") if ":" not in part and not part.endswith("_time"))


class Results:
    def __init__(self, directory):
        self.directory = directory
        self.errors = []

    def median(self, program, benchmark, clock):
        """The median of `benchmark`'s repetitions in nanoseconds, and its counters."""
        with open(os.path.join(self.directory, program + ".json")) as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            if base_name(run["run_name"]) == benchmark and run.get("error_occurred"):
                self.errors.append("%s: %s" % (benchmark, run.get("error_message", "error")))
        for run in runs:
            if base_name(run["run_name"]) == benchmark and run.get("aggregate_name") == "median":
                return run[clock] * UNIT_NS[run["time_unit"]], run
        self.errors.append("%s: no result" % benchmark)
        return float("nan"), {}

    def median_or_single(self, program, benchmark):
        """The one run of `benchmark` (no repetitions): its real time in nanoseconds and its counters."""
        with open(os.path.join(self.directory, program + ".json")) as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            if base_name(run["run_name"]) == benchmark:
                if run.get("error_occurred"):
                    self.errors.append("%s: %s" % (benchmark, run.get("error_message", "error")))
                return run["real_time"] * UNIT_NS[run["time_unit"]], run
        self.errors.append("%s: no result" % benchmark)
        return float("nan"), {}

    def instructions(self, operation, count):
        """Instructions per operation from callgrind's totals."""
        path = os.path.join(self.directory, "callgrind.%s.out" % operation)
        with open(path) as file:
            for line in file:
                if line.startswith("totals:"):
                    return int(line.split()[1]) / count
        self.errors.append("callgrind %s: no totals" % operation)
        return float("nan")


def duration(ns):
    """Three significant digits in the largest unit that keeps one before the point."""
    unit, scale = next(((unit, scale) for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)) if ns >= scale),
                       ("ns", 1.0))
    value = ns / scale
    decimals = 0 if value >= 100 else 1 if value >= 10 else 2
    return "%.*f %s" % (decimals, value, unit)


def ratio_row(name, measured, baseline_name, baseline, limit, basis):
    ratio = measured / baseline
    met = "yes" if limit and ratio <= limit else "MISSED"
    return [name, duration(measured), "%s %s" % (baseline_name, duration(baseline)), "%.2fx" % ratio,
            "<= %.2fx" % limit if limit else "report only", met if limit else "-", basis]


def repetitions(run):
    return "median of %d runs" % run.get("repetitions", 0)


def machine():
    """Which machine the figures come from, and how busy it was."""
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as file:
            model = next(line.split(":", 1)[1].strip() for line in file if line.startswith("model name"))
    except (OSError, StopIteration):
        pass
    return "%s, %s, %d cores, load average %.2f" % (os.uname().nodename, model, os.cpu_count(), os.getloadavg()[0])


def main():
    results = Results(sys.argv[1])
    operations = int(sys.argv[2])
    rows = []

    evict_list, run = results.median("kscdp_evict_list_bench", "EvictList", "cpu_time")
    queue, _ = results.median("kscdp_evict_list_bench", "PriorityQueue", "cpu_time")
    rows.append(ratio_row("evict list: insert 1M VMs, remove all", evict_list,
                          "std::priority_queue", queue, 1.15, repetitions(run)))

    for benchmark, operation, label in (("EvictionPass", "evict", "call_evict_data(1), one VM"),
                                        ("Alert", "alert", "raise_backup_alert")):
        cpu, run = results.median("kscdp_gateway_bench", benchmark, "cpu_time")
        instructions = results.instructions(operation, operations)
        rows.append(["gateway, fake platform: " + label, "%s CPU" % duration(cpu),
                     "{:,.0f} instructions".format(instructions), "", "report only", "-",
                     "%s; callgrind, %d calls" % (repetitions(run), operations)])

    library, run = results.median("kscdp_job_polling_bench", "LibraryPolls", "real_time")
    parsing, _ = results.median("kscdp_job_polling_bench", "CurlKeepAliveParsePolls", "real_time")
    bare, _ = results.median("kscdp_job_polling_bench", "CurlKeepAliveOnlyPolls", "real_time")
    rows.append(ratio_row("poll 1,000 DONE jobs via libkscdp.so", library,
                          "libcurl keep-alive + Jansson parse", parsing, 1.2, repetitions(run)))
    rows.append(ratio_row("  (the same, against no parse)", library, "libcurl keep-alive only", bare, None,
                          repetitions(run)))
    polled = {name: results.instructions("poll-" + name, 1000)
              for name in ("library", "curl-parse", "curl")}
    rows.append(["  instructions per polled job", "{:,.0f}".format(polled["library"]),
                 "with parse {:,.0f}, without {:,.0f}".format(polled["curl-parse"], polled["curl"]),
                 "%.2fx" % (polled["library"] / polled["curl-parse"]), "report only", "-",
                 "callgrind, 1,000 polls, polling thread"])

    deliveries = {}
    for benchmark in ("FullSyncOutboxAlertDelivery", "OutboxAlertDelivery", "OutboxAlertDeliveryWithMetrics",
                      "MemoryAlertDelivery", "BareMosquittoDelivery"):
        # The last, of nine repetitions like the rest but the first, labels the rows.
        deliveries[benchmark], run = results.median("kscdp_alert_delivery_bench", benchmark, "real_time")
        missing = run.get("missing", float("nan"))
        if missing != 0:
            results.errors.append("%s: %s alerts missing" % (benchmark, missing))
    rows.append(ratio_row("10,000 alerts to mosquitto, outbox", deliveries["OutboxAlertDelivery"],
                          "outbox = none", deliveries["MemoryAlertDelivery"], 1.2, repetitions(run)))
    rows.append(ratio_row("10,000 alerts, outbox, metrics file every 1 s", deliveries["OutboxAlertDeliveryWithMetrics"],
                          "metrics off", deliveries["OutboxAlertDelivery"], 1.05, repetitions(run)))
    rows.append(["10,000 alerts to mosquitto, outbox_sync = full", duration(deliveries["FullSyncOutboxAlertDelivery"]),
                 "outbox_sync = normal %s" % duration(deliveries["OutboxAlertDelivery"]),
                 "%.2fx" % (deliveries["FullSyncOutboxAlertDelivery"] / deliveries["OutboxAlertDelivery"]),
                 "report only", "-", "3 runs"])
    rows.append(ratio_row("10,000 alerts to mosquitto, outbox = none", deliveries["MemoryAlertDelivery"],
                          "bare libmosquitto", deliveries["BareMosquittoDelivery"], 1.2, repetitions(run)))

    _, idle_run = results.median_or_single("kscdp_concurrent_alerts_bench", "AlertLatency/0")
    _, busy_run = results.median_or_single("kscdp_concurrent_alerts_bench", "AlertLatency/1")
    p99 = busy_run.get("p99_us", float("nan"))
    rows.append(["raise_backup_alert p99, 4 threads polling unknown jobs", duration(p99 * 1e3),
                 "p50 %s, max %s; idle engine p99 %s" % (duration(busy_run.get("p50_us", float("nan")) * 1e3),
                                                          duration(busy_run.get("max_us", float("nan")) * 1e3),
                                                          duration(idle_run.get("p99_us", float("nan")) * 1e3)),
                 "", "<= 5 ms", "yes" if p99 <= 5000 else "MISSED", "one run of 2,000 alerts each"])
    rates = []
    for threads in (1, 2, 4):
        _, run = results.median("kscdp_concurrent_alerts_bench", "AlertThroughput/%d" % threads, "real_time")
        rates.append("%d: {:,.0f}".format(run.get("alerts_per_s", float("nan"))) % threads)
    rows.append(["alerts/s raised from 1, 2, 4 threads", "; ".join(rates), "", "", "report only", "-",
                 repetitions(run)])

    _, backlog_run = results.median_or_single("kscdp_concurrent_alerts_bench", "AlertBesideABacklog")
    waited = backlog_run.get("second_alert_ms", float("nan"))
    rows.append(["an alert beside a first publisher finding 99,000 events", duration(waited * 1e6),
                 "the second thread's, 2 ms after the first", "", "<= 20 ms", "yes" if waited <= 20 else "MISSED",
                 "one run"])
    rows.append(["disk per waiting alert, broker away", "{:,.0f} bytes".format(
                     backlog_run.get("bytes_per_waiting_alert", float("nan"))),
                 "99,000 events, every file of the outbox", "", "report only", "-", "one run"])

    print("bench: machine: " + machine())
    header = ["benchmark", "measured", "baseline / detail", "ratio", "target", "met", "basis"]
    widths = [max(len(str(row[i])) for row in [header] + rows) for i in range(len(header))]
    rule = "-+-".join("-" * width for width in widths)
    for row in [header, None] + rows:
        print(rule if row is None else " | ".join(str(cell).ljust(width) for cell, width in zip(row, widths)))
    targets = [row for row in rows if row[5] != "-"]
    print("bench: %d of %d targets met (medians of one run of bench/run.sh)" %
          (sum(row[5] == "yes" for row in targets), len(targets)))
    for error in results.errors:
        print("bench: error: " + error, file=sys.stderr)
    return 1 if results.errors else 0


if __name__ == "__main__":
    sys.exit(main())
