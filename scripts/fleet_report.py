#!/usr/bin/python3
"""The fleet's report: what each subscriber received, how the engines sat on
the broker nodes before and after one of them stopped, how their connection
attempts spread after it, the wait from raise to arrival, what one engine and
each node spent, and a PNG timeline drawn with gnuplot.

  fleet_report.py WORK RUN_STARTED STOPPED STOPPED_NODE BOUNDS NODE...

NODE is "<host:port>:<subscribers>" for each broker node in order (1, 2, 3);
STOPPED_NODE is the number (from 1) of the node stopped or killed at STOPPED.
WORK holds alerts-<n>.jsonl for each node with a subscriber ("<arrival>
<payload>" lines from mosquitto_sub -F '%U %p'), engine-*/alert-times.tsv
("<vm id> <raised>"), engine-*/metrics.prom, engine-*/kscdp.log, and the
sampler's waiting.tsv, connections.tsv, brokers.tsv and engines.tsv
(scripts/fleet_sampler.py); times are seconds since the epoch.

Prints the report's lines and writes WORK/fleet.png. With BOUNDS 1, also
checks the site's bounds and exits 1 when one is broken: each node within 20%
of an even share of the engines before the stop, each survivor within 20% of
its share after it, no 100 ms after it holding attempts of more than a third
of the stopped node's engines, delivery p99 within 2 s.
"""
import bisect
import calendar
import glob
import json
import math
import os
import subprocess
import sys
import time

from prometheus_client.parser import text_string_to_metric_families

ATTEMPT = " NotificationSupplier: connecting to broker "
CONNECTED = " NotificationSupplier: connected to broker "
SWITCHED = " to broker "  # in "NotificationSupplier: switched from broker A to broker B"
STOPPING = " stop_alert_thread: "
WINDOW = 0.1  # seconds
SETTLING = (1.0, 6.0)  # seconds after the stop in which the survivors' connections are read
SHARE_TOLERANCE = 0.2
LONGEST_P99_MS = 2000


def arrivals(path):
    """(arrival time, payload) of every message a subscriber received; none
    when the node had no subscriber."""
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


def table(path):
    """The rows of a sampler's table, as lists of numbers; none without the file."""
    if not os.path.exists(path):
        return []
    with open(path, encoding="ascii") as lines:
        return [[float(field) for field in line.split()] for line in lines if line.strip()]


def percentile(sorted_values, share):
    """Nearest-rank percentile of a sorted, non-empty list."""
    return sorted_values[max(0, math.ceil(share * len(sorted_values)) - 1)]


def vm_id_of(payload):
    uuid = json.loads(payload).get("attributes", {}).get("uuid", "")
    return uuid.replace("-", "")


def engine_connections(work, subscribers):
    """(time, [engines connected to each node]) for each sample: the
    established connections on each node's port less its subscribers'."""
    return [(row[0], [max(0, int(count) - subscribers[n]) for n, count in enumerate(row[1:])])
            for row in table(os.path.join(work, "connections.tsv"))]


def before_and_after(samples, stopped):
    """The engines on each node in the last sample before the stop, and in
    the sample of the settling time after it in which the nodes held the most."""
    before = [row for stamp, row in samples if stamp < stopped]
    settled = [row for stamp, row in samples if SETTLING[0] <= stamp - stopped <= SETTLING[1]]
    first = before[-1] if before else [0] * (len(samples[0][1]) if samples else 0)
    return first, (max(settled, key=sum) if settled else first)


def log_time(line):
    """Seconds since the epoch of a log line's leading UTC time, or None."""
    stamp = line.split(" ", 1)[0]
    try:
        whole, _, millis = stamp.rstrip("Z").partition(".")
        return calendar.timegm(time.strptime(whole, "%Y-%m-%dT%H:%M:%S")) + int(millis or 0) / 1000
    except ValueError:
        return None


def held_engines_attempts(work, stopped, node):
    """The attempts after the stop of the engines that held a connection to
    `node` ("host:port") when it stopped: their number, and the sorted times
    of their attempts. An engine held it when its last connection before the
    stop was to the node and its alert thread had not stopped."""
    held = 0
    times = []
    for path in glob.glob(os.path.join(work, "engine-*", "kscdp.log")):
        reached, attempts = None, []
        with open(path, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                stamp = log_time(line)
                if stamp is None:
                    continue
                if stamp < stopped:
                    if CONNECTED in line or " NotificationSupplier: switched from broker " in line:
                        reached = line.rstrip("\n").rpartition(SWITCHED if "switched" in line else CONNECTED)[2]
                    elif STOPPING in line:
                        reached = None
                elif ATTEMPT in line:
                    attempts.append(stamp)
        if reached == node:
            held += 1
            times.extend(attempts)
    return held, sorted(times)


def most_in_window(times):
    """The most of the sorted `times` within any WINDOW."""
    return max((bisect.bisect_right(times, start + WINDOW) - i for i, start in enumerate(times)), default=0)


def draw(work, nodes, by_node, connections, started, stopped, stopped_node):
    """fleet.png: above, alerts delivered per second to each subscriber and
    the alerts waiting across the engines; below, the engines connected to
    each node; in both, when the node stopped."""
    end = max([t for received in by_node for t, _ in received] + [stopped]) - started
    seconds = int(end) + 1
    subscribed = [n for n, received in enumerate(by_node) if os.path.exists(os.path.join(work, f"alerts-{n + 1}.jsonl"))]
    with open(os.path.join(work, "delivered.dat"), "w", encoding="utf-8") as data:
        counts = [[0] * seconds for _ in by_node]
        for n, received in enumerate(by_node):
            for stamp, _ in received:
                counts[n][min(seconds - 1, max(0, int(stamp - started)))] += 1
        for second in range(seconds):
            data.write(f"{second} {' '.join(str(counts[n][second]) for n in range(len(by_node)))}\n")
    with open(os.path.join(work, "waiting.dat"), "w", encoding="utf-8") as data:
        for stamp, waiting in table(os.path.join(work, "waiting.tsv")):
            data.write(f"{stamp - started:.2f} {waiting:.0f}\n")
    with open(os.path.join(work, "connections.dat"), "w", encoding="utf-8") as data:
        for stamp, row in connections:
            data.write(f"{stamp - started:.2f} {' '.join(map(str, row))}\n")
    at = stopped - started
    cluster = len(subscribed) < len(nodes)
    delivered = ", ".join(
        f'"{work}/delivered.dat" using 1:{n + 2} with steps lw 2 title '
        f'"delivered to the subscriber on node {n + 1}{" (from every node)" if cluster else ""}"'
        for n in subscribed)
    connected = ", ".join(f'"{work}/connections.dat" using 1:{n + 2} with steps lw 2 title "node {n + 1} ({address})"'
                          for n, address in enumerate(nodes))
    script = f"""
set terminal png size 1200,800 font ",10"
set output "{work}/fleet.png"
set multiplot layout 2,1 title "make fleet: node {stopped_node} stopped after {at:.1f} s"
set lmargin at screen 0.08
set rmargin at screen 0.70
set key outside right top
set grid
set xrange [0:{seconds}]
set arrow 1 from {at:.2f}, graph 0 to {at:.2f}, graph 1 nohead lw 2 lc rgb "red"
set label 1 "node {stopped_node} stopped" at {at:.2f}, graph 0.95 offset 0.5,0 tc rgb "red"
set title "alerts delivered per second, and alerts waiting"
set ylabel "alerts delivered per second"
set y2label "alerts waiting across the engines"
set ytics nomirror
set y2tics
set yrange [0:*]
set y2range [0:*]
plot {delivered}, \\
     "{work}/waiting.dat" using 1:2 axes x1y2 with lines lw 2 dt 2 title "waiting (metrics files)"
set title "engines connected to each node"
set xlabel "seconds since the engines started"
set ylabel "engines connected"
unset y2label
unset y2tics
plot {connected}
unset multiplot
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return os.path.join(work, "fleet.png")


def within(count, share):
    return share * (1 - SHARE_TOLERANCE) <= count <= share * (1 + SHARE_TOLERANCE)


def broken_bounds(before, after, stopped_index, most, held, p99):
    """What breaks the site's bounds, one phrase each."""
    broken = []
    if sum(before) and not all(within(count, sum(before) / len(before)) for count in before):
        broken.append("the nodes are not within 20% of an even share before the stop")
    survivors = [count for n, count in enumerate(after) if n != stopped_index]
    if survivors and sum(survivors) and not all(within(count, sum(survivors) / len(survivors)) for count in survivors):
        broken.append("the surviving nodes are not within 20% of an even share after the stop")
    if most * 3 > held:
        broken.append("more than a third of the stopped node's engines tried within one 100 ms")
    if p99 is None or p99 > LONGEST_P99_MS:
        broken.append("delivery p99 is over 2 s")
    return broken


def main(work, started, stopped, stopped_node, check_bounds, node_specs):
    nodes = [spec.rsplit(":", 1)[0] for spec in node_specs]
    subscribers = [int(spec.rsplit(":", 1)[1]) for spec in node_specs]
    by_node = [arrivals(os.path.join(work, f"alerts-{n + 1}.jsonl")) for n in range(len(nodes))]
    everything = [arrival for received in by_node for arrival in received]
    duplicates = len(everything) - len({payload for _, payload in everything})
    sums = metric_sums(work)
    left = sums.get(("kscdp_alerts_waiting", ()), 0)
    received = ", ".join(f"{nodes[n]} {len(by_node[n])}" for n in range(len(nodes)) if subscribers[n])
    print(f"fleet: by broker {received}; {duplicates} duplicates; {left:.0f} left in outboxes")

    connections = engine_connections(work, subscribers)
    before, after = before_and_after(connections, stopped)
    print(f"fleet: connections per node before {' '.join(map(str, before))}; after {' '.join(map(str, after))}")
    held, attempts = held_engines_attempts(work, stopped, nodes[stopped_node - 1])
    most = most_in_window(attempts)
    print(f"fleet: most connection attempts in 100 ms after the kill {most} of {held} engines")

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
    p99 = percentile(waits, 0.99) if waits else None
    if waits:
        delivery = f"delivery p50 {percentile(waits, 0.5):.0f} ms, p99 {p99:.0f} ms, max {waits[-1]:.0f} ms"
    else:
        delivery = "delivery p50 - ms, p99 - ms, max - ms"
    print(f"fleet: {delivery}; {failed:.0f} failed passes; {http_errors:.0f} HTTP errors")

    engines = table(os.path.join(work, "engines.tsv"))
    if engines:
        cpu = sorted(row[1] for row in engines)
        rss = sorted(row[2] / 1024 for row in engines)
        anonymous = sorted(row[3] / 1024 for row in engines)
        print(f"fleet: one engine (simulator and library, /proc): CPU p50 {percentile(cpu, 0.5):.2f} s, "
              f"max {cpu[-1]:.2f} s; resident p50 {percentile(rss, 0.5):.1f} MiB "
              f"({percentile(anonymous, 0.5):.1f} MiB its own), max {rss[-1]:.1f} MiB")
    spent = table(os.path.join(work, "brokers.tsv"))
    if spent:
        print(f"fleet: broker nodes' CPU {' '.join(f'{seconds:.2f}' for seconds in spent[-1][1:])} s")
    print(f"fleet: picture {draw(work, nodes, by_node, connections, started, stopped, stopped_node)}")

    if check_bounds:
        broken = broken_bounds(before, after, stopped_node - 1, most, held, p99)
        for phrase in broken:
            print(f"fleet: out of bounds: {phrase}", file=sys.stderr)
        if broken:
            return 1
        print("fleet: within the site's bounds (even shares within 20%, attempts spread, p99 within 2 s)")
    return 0


if __name__ == "__main__":
    if len(sys.argv) < 7:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], float(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4]), sys.argv[5] == "1",
                  sys.argv[6:]))
