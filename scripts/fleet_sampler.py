#!/usr/bin/python3
"""The fleet's sampler: every half second, until ENGINES engines have been
listed in ENGINE_PIDS and all have exited, what the run's report and picture
need and cannot ask afterwards.

  fleet_sampler.py WORK ENGINE_PIDS ENGINES NODE...

NODE is "<port>:<pid>" for each broker node in order (1, 2, 3): the port its
engines reach it on and the process whose CPU it spends. ENGINE_PIDS is a
file of the engine simulators' process ids, one a line, appended to as they
start. Appends a line a
sample to each of, in WORK (times are seconds since the epoch):

  waiting.tsv      <time> <alerts waiting across the engines' metrics files>
  connections.tsv  <time> <established connections on each node's port>...
  brokers.tsv      <time> <CPU seconds each node's process has spent>...
  engines.tsv      <pid> <CPU seconds> <resident KiB> <anonymous resident KiB>,
                   rewritten with each engine's last sample
Connections are counted on the brokers' side: sockets whose local port is a
node's port, established; a subscriber's connection counts too.
"""
import glob
import os
import sys
import time

INTERVAL = 0.5
CLOCK_TICKS = os.sysconf("SC_CLK_TCK")
ESTABLISHED = "01"
WAITING = "kscdp_alerts_waiting "


def cpu_seconds(pid):
    """User and system CPU seconds of a process, or None once it is gone."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rpartition(")")[2].split()
    except OSError:
        return None
    return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def resident_kib(pid):
    """(VmRSS, RssAnon) in KiB of a process, or None once it is gone."""
    found = {}
    try:
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            for line in status:
                key, _, value = line.partition(":")
                if key in ("VmRSS", "RssAnon"):
                    found[key] = int(value.split()[0])
    except OSError:
        return None
    return found.get("VmRSS", 0), found.get("RssAnon", 0)


def established_by_port(ports):
    """Established sockets on this machine whose local port is one of `ports`."""
    counts = dict.fromkeys(ports, 0)
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table, encoding="ascii") as lines:
                next(lines, None)
                for line in lines:
                    fields = line.split()
                    port = int(fields[1].rpartition(":")[2], 16)
                    if port in counts and fields[3] == ESTABLISHED:
                        counts[port] += 1
        except OSError:
            continue
    return [counts[port] for port in ports]


def alerts_waiting(work):
    """The kscdp_alerts_waiting samples of the engines' metrics files, summed.
    Read line by line, not parsed whole: hundreds of files every half second
    must not cost the run a core."""
    total = 0.0
    for path in glob.glob(os.path.join(work, "engine-*", "metrics.prom")):
        try:
            with open(path, encoding="utf-8") as lines:
                for line in lines:
                    if line.startswith(WAITING):
                        total += float(line[len(WAITING):])
                        break
        except (OSError, ValueError):
            continue  # an engine that has not written one yet
    return total


def listed_engines(pid_file):
    """The process ids in the file so far; a line being written is left for the next read."""
    with open(pid_file, encoding="ascii") as text:
        lines = text.read().split("\n")
    return [line for line in lines[:-1] if line.strip()]


def main(work, pid_file, engine_count, nodes):
    ports = [int(node.split(":")[0]) for node in nodes]
    broker_pids = [node.split(":")[1] for node in nodes]
    last = {}
    broker_cpu = [0.0] * len(nodes)
    with open(os.path.join(work, "waiting.tsv"), "a", encoding="ascii") as waiting, \
            open(os.path.join(work, "connections.tsv"), "a", encoding="ascii") as connections, \
            open(os.path.join(work, "brokers.tsv"), "a", encoding="ascii") as brokers:
        while True:
            now = time.time()
            waiting.write(f"{now:.3f} {alerts_waiting(work):.0f}\n")
            connections.write(f"{now:.3f} {' '.join(map(str, established_by_port(ports)))}\n")
            for n, pid in enumerate(broker_pids):
                spent = cpu_seconds(pid)
                broker_cpu[n] = broker_cpu[n] if spent is None else spent
            brokers.write(f"{now:.3f} {' '.join(f'{spent:.2f}' for spent in broker_cpu)}\n")
            engines = listed_engines(pid_file)
            alive = 0
            for pid in engines:
                spent, memory = cpu_seconds(pid), resident_kib(pid)
                if spent is None or memory is None:
                    continue
                alive += 1
                last[pid] = (spent, *memory)
            with open(os.path.join(work, "engines.tsv.new"), "w", encoding="ascii") as table:
                for pid, (spent, rss, anonymous) in last.items():
                    table.write(f"{pid} {spent:.2f} {rss} {anonymous}\n")
            os.replace(os.path.join(work, "engines.tsv.new"), os.path.join(work, "engines.tsv"))
            for stream in (waiting, connections, brokers):
                stream.flush()
            if alive == 0 and len(engines) >= engine_count:
                return
            time.sleep(max(0.0, INTERVAL - (time.time() - now)))


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:])
