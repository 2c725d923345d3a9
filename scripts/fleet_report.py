#!/usr/bin/python3
"""The fleet's report: what each broker's subscriber received, the wait from
raise to arrival, what the engines' metrics files say was left and failed,
and a PNG timeline drawn with gnuplot.

  fleet_report.py WORK BROKER1 BROKER2 RUN_STARTED BROKER1_STOPPED

WORK holds alerts-1.jsonl and alerts-2.jsonl ("<arrival> <payload>" lines
from mosquitto_sub -F '%U %p'), engine-*/alert-times.tsv ("<vm id> <raised>"),
engine-*/metrics.prom and waiting.tsv ("<time> <alerts waiting>"); times are
seconds since the epoch. Prints three lines and writes WORK/fleet.png.
"""
import glob
import json
import math
import os
import subprocess
import sys

from prometheus_client.parser import text_string_to_metric_families


def arrivals(path):
    """(arrival time, payload) of every message a subscriber received; none
    when the broker had no subscriber (a cluster's other nodes)."""
    received = []
    if not os.path.exists(path):
        return received
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            stamp, _, payload = line.rstrip("\n").partition(" ")
            if payload:
                received.append((float(stamp), payload))
    return received


def raise_times(work):
    """Raise time of each engine simulator's own alert, by VM id."""
    raised = {}
    for path in glob.glob(os.path.join(work, "engine-*", "alert-times.tsv")):
        with open(path, encoding="utf-8") as lines:
            for line in lines:
                vm_id, stamp = line.split()
                raised[vm_id] = float(stamp)
    return raised


def metric_sums(work):
    """Each sample's value summed over the engines' metrics files, by name and labels."""
    sums = {}
    for path in glob.glob(os.path.join(work, "engine-*", "metrics.prom")):
        with open(path, encoding="utf-8") as text:
            for family in text_string_to_metric_families(text.read()):
                for sample in family.samples:
                    key = (sample.name, tuple(sorted(sample.labels.items())))
                    sums[key] = sums.get(key, 0) + sample.value
    return sums


def percentile(sorted_values, share):
    """Nearest-rank percentile of a sorted, non-empty list."""
    return sorted_values[max(0, math.ceil(share * len(sorted_values)) - 1)]


def vm_id_of(payload):
    uuid = json.loads(payload).get("attributes", {}).get("uuid", "")
    return uuid.replace("-", "")


def draw(work, brokers, by_broker, started, stopped):
    """fleet.png: alerts delivered per second through each broker, the
    alerts waiting across the engines, and when broker 1 stopped."""
    end = max([t for received in by_broker for t, _ in received] + [stopped]) - started
    seconds = int(end) + 1
    with open(os.path.join(work, "delivered.dat"), "w", encoding="utf-8") as data:
        counts = [[0] * seconds for _ in by_broker]
        for n, received in enumerate(by_broker):
            for stamp, _ in received:
                counts[n][min(seconds - 1, max(0, int(stamp - started)))] += 1
        for second in range(seconds):
            data.write(f"{second} {counts[0][second]} {counts[1][second]}\n")
    with open(os.path.join(work, "waiting.tsv"), encoding="utf-8") as samples, \
            open(os.path.join(work, "waiting.dat"), "w", encoding="utf-8") as data:
        for line in samples:
            stamp, waiting = line.split()
            data.write(f"{float(stamp) - started:.2f} {waiting}\n")
    script = f"""
set terminal png size 1100,550 font ",10"
set output "{work}/fleet.png"
set title "make fleet: alerts delivered per second through each broker, and alerts waiting"
set xlabel "seconds since the engines started"
set ylabel "alerts delivered per second"
set y2label "alerts waiting across the engines"
set ytics nomirror
set y2tics
set yrange [0:*]
set y2range [0:*]
set key top right
set grid
set arrow from {stopped - started:.2f}, graph 0 to {stopped - started:.2f}, graph 1 nohead lw 2 lc rgb "red"
set label "broker 1 stopped" at {stopped - started:.2f}, graph 0.95 offset 0.5,0 tc rgb "red"
plot "{work}/delivered.dat" using 1:2 with steps lw 2 title "{brokers[0]}", \\
     "{work}/delivered.dat" using 1:3 with steps lw 2 title "{brokers[1]}", \\
     "{work}/waiting.dat" using 1:2 axes x1y2 with lines lw 2 dt 2 title "waiting (metrics files)"
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return os.path.join(work, "fleet.png")


def main(work, broker1, broker2, started, stopped):
    brokers = [broker1, broker2]
    by_broker = [arrivals(os.path.join(work, f"alerts-{n}.jsonl")) for n in (1, 2)]
    everything = by_broker[0] + by_broker[1]
    duplicates = len(everything) - len({payload for _, payload in everything})
    sums = metric_sums(work)
    left = sums.get(("kscdp_alerts_waiting", ()), 0)
    print(f"fleet: by broker {broker1} {len(by_broker[0])}, {broker2} {len(by_broker[1])}; "
          f"{duplicates} duplicates; {left:.0f} left in outboxes")

    raised = raise_times(work)
    first_arrival = {}
    for stamp, payload in everything:
        vm_id = vm_id_of(payload)
        if vm_id in raised:
            first_arrival[vm_id] = min(stamp, first_arrival.get(vm_id, stamp))
    waits = sorted((first_arrival[vm_id] - raised[vm_id]) * 1000 for vm_id in first_arrival)
    failed = sums.get(("kscdp_eviction_passes_failed_total", ()), 0)
    http_errors = sum(value for (name, labels), value in sums.items()
                      if name == "kscdp_http_requests_total" and dict(labels).get("outcome") != "2xx")
    if waits:
        delivery = (f"delivery p50 {percentile(waits, 0.5):.0f} ms, p99 {percentile(waits, 0.99):.0f} ms, "
                    f"max {waits[-1]:.0f} ms")
    else:
        delivery = "delivery p50 - ms, p99 - ms, max - ms"
    print(f"fleet: {delivery}; {failed:.0f} failed passes; {http_errors:.0f} HTTP errors")
    print(f"fleet: picture {draw(work, brokers, by_broker, started, stopped)}")


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2], sys.argv[3], float(sys.argv[4]), float(sys.argv[5]))
