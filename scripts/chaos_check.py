#!/usr/bin/python3
"""The invariants of a chaos run (scripts/chaos.sh), checked over what it left
in its directory: the subscribers' alerts, the master simulator's record, the
engines' outputs and logs, and the faults it injected. Prints the summary
line and, for each invariant that failed, what broke and the fault before it;
exit status 0 when all hold. With --quiet, prints nothing."""
import argparse
import json
import os
import re
import sys

RESOURCE_MARGIN_KIB = 16384
DESCRIPTOR_MARGIN = 2
CALL_MARGIN_SECONDS = 15  # a status call's own waits for a job the master does not know yet
PASS_LOG = "requestEviction: VM: "
RESTARTED_FIRST_ALERT = 1000000


def read_lines(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read().splitlines()
    except FileNotFoundError:
        return []


def backup_requests(work, failures):
    """How many backups the master simulator was asked for (its record in the run's directory)."""
    try:
        with open(os.path.join(work, "master-requests.json"), encoding="utf-8") as f:
            requests = json.load(f)
    except (OSError, ValueError) as e:
        failures.append(f"the master simulator's record cannot be read: {e}")
        return 0
    return sum(1 for r in requests if r.get("method") == "POST")


def payload_key(line):
    """(server, VM id as 32 hex digits, job id or None) of one delivered alert."""
    try:
        attributes = json.loads(line).get("attributes", {})
    except ValueError:
        return None
    vm = attributes.get("uuid", "").replace("-", "").lower()
    return attributes.get("server"), vm, attributes.get("jobid")


class Run:
    """One engine process: its output, as --record prints it."""

    def __init__(self, path, first_alert):
        self.lines = read_lines(path)
        self.first_alert = first_alert
        self.accepted_up_to = None
        self.refused = set()
        self.resources = []
        self.longest = None
        self.done = None
        self.vms = []  # (vm id, job id, state) from the summary table
        for line in self.lines:
            if m := re.match(r"record: alerts accepted up to (\d+)$", line):
                self.accepted_up_to = int(m.group(1))
            elif m := re.match(r"record: alert (\d+) refused$", line):
                self.refused.add(int(m.group(1)))
            elif m := re.match(r"record: resources (-?\d+) (-?\d+)$", line):
                self.resources.append((int(m.group(1)), int(m.group(2))))
            elif m := re.match(r"record: longest call ([\d.]+)$", line):
                self.longest = float(m.group(1))
            elif m := re.match(r"(\d+) of \d+ VMs done$", line):
                self.done = int(m.group(1))
            elif m := re.match(r"([0-9a-f]{32})\s+\d+\s+\S+\s+(\d+)\s+(.+)$", line):
                self.vms.append((m.group(1), m.group(2), m.group(3).strip()))

    def own_alerts(self):
        if self.accepted_up_to is None:
            return []
        return [n for n in range(self.first_alert, self.accepted_up_to + 1) if n not in self.refused]


def main():
    parser = argparse.ArgumentParser()
    for name in ("work", "statuses"):
        parser.add_argument("--" + name, required=True)
    for name in ("seed", "engines", "vms", "killed", "http-timeout", "faults"):
        parser.add_argument("--" + name, type=int, required=True)
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("--memory-margin-kib", type=int, default=RESOURCE_MARGIN_KIB)
    parser.add_argument("--quiet", action="store_true")
    args = parser.parse_args()
    work = args.work
    statuses = [int(s) for s in args.statuses.split()]

    faults = []  # (seconds, what)
    for line in read_lines(os.path.join(work, "faults.log")):
        ms, _, what = line.partition(" ")
        faults.append((int(ms) / 1000, what))
    injected = [f for f in faults if not f[1].startswith("restart")]

    def before(engine, what):
        """The last fault that touched `engine` (or every engine), for a failure's report."""
        touching = [f for f in injected if f"engine {engine}:" in f[1] or f"engine {engine} " in f[1]
                    or "broker" in f[1] or "master" in f[1]]
        last = touching[-1] if touching else None
        where = f"; the fault before it: {last[1]} at {last[0]:.1f} s" if last else "; no fault touched it"
        return f"engine {engine}: {what}{where}"

    delivered_lines = []
    for n in (1, 2):
        delivered_lines += [l for l in read_lines(os.path.join(work, f"alerts-{n}.jsonl")) if l.strip()]
    duplicates = len(delivered_lines) - len(set(delivered_lines))
    keys = {payload_key(l) for l in set(delivered_lines)}
    own_keys = {(k[0], k[1]) for k in keys if k}

    failures = []
    vms_done = 0
    expected = 0
    arrived = 0
    passes = 0
    for engine in range(1, args.engines + 1):
        directory = os.path.join(work, f"engine-{engine}")
        server = f"chaos-engine-{engine}"
        runs = [Run(os.path.join(directory, "engine-1.out"), 0)]
        if engine == args.killed:
            runs.append(Run(os.path.join(directory, "engine-2.out"), RESTARTED_FIRST_ALERT))
        final = runs[-1]
        passes += sum(PASS_LOG in l for l in read_lines(os.path.join(directory, "kscdp.log")))

        vms_done += final.done or 0
        if final.done != args.vms:
            failures.append(before(engine, f"{final.done or 0} of {args.vms} VMs done"))
        status = statuses[engine - 1] if engine - 1 < len(statuses) else -1
        if status not in (0, 1) or final.done is None:
            failures.append(before(engine, f"crashed (exit status {status}, no summary)"))

        missing = []
        for run in runs:
            for number in run.own_alerts():
                expected += 1
                if (server, "%016x%016x" % (engine, number)) in own_keys:
                    arrived += 1
                else:
                    missing.append(f"alert 501 number {number}")
        for vm, job, state in final.vms:
            if job == "0":
                continue
            expected += 1
            if (server, vm, job) in keys:
                arrived += 1
            else:
                missing.append(f"alert 500 for VM {vm} job {job}")
        if missing:
            failures.append(before(engine, f"{len(missing)} accepted alerts never arrived, the first {missing[0]}"))

        for number, run in enumerate(runs, 1):
            if run is not final:
                continue  # killed: it never reached its end
            if run.longest is not None and run.longest > args.http_timeout + CALL_MARGIN_SECONDS:
                failures.append(before(engine, f"a call blocked {run.longest:.1f} s, past http_timeout "
                                               f"{args.http_timeout} s + {CALL_MARGIN_SECONDS} s"))
            if len(run.resources) == 2:
                (rss0, fds0), (rss1, fds1) = run.resources
                if rss1 - rss0 > args.memory_margin_kib or fds1 - fds0 > DESCRIPTOR_MARGIN:
                    failures.append(before(engine, f"run {number} ended with {rss1 - rss0} KiB more memory and "
                                                   f"{fds1 - fds0} more descriptors than it began with"))
            elif run.done is not None:
                failures.append(before(engine, f"run {number} recorded no resources"))

    daemon_posts = backup_requests(work, failures)
    if daemon_posts > passes:
        failures.append(f"the master got {daemon_posts} backup requests for {passes} eviction passes: a VM was "
                        f"requested more often than its failed passes plus one; the last fault: "
                        f"{injected[-1][1] if injected else 'none'}")

    vms_total = args.engines * args.vms
    if not args.quiet:
        print(f"chaos: seed {args.seed}, {args.engines} engines, {vms_done} of {vms_total} VMs done, "
              f"{arrived} of {expected} alerts delivered, {duplicates} duplicates, {len(injected)} faults, "
              f"{sum('kill -9 of engine' in f[1] for f in injected)} engines killed, {args.seconds:.1f} s")
        for failure in failures:
            print("chaos: " + failure, file=sys.stderr)
    if len(injected) < args.faults:
        if not args.quiet:
            print(f"chaos: only {len(injected)} of {args.faults} faults were injected", file=sys.stderr)
        return 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
