#!/usr/bin/python3
"""The invariants of a run under failing system calls (scripts/faults.sh),
checked over what it left in its directory: the engine's output and log, the
subscriber's alerts, the outbox, the master simulator's record and the counts
of failed calls. Prints the summary line and, for each invariant that failed,
what broke; exit status 0 when all hold. With --quiet, prints nothing."""
import argparse
import os
import re
import sqlite3
import sys

from chaos_check import CALL_MARGIN_SECONDS, PASS_LOG, Run, backup_requests, payload_key, read_lines

# What each entry point may return (backup_engine.h): its own codes, and an
# errno value where the configuration cannot be read.
DOCUMENTED = {
    "call_evict_data": {0, 20, -1} | set(range(1, 134)),
    "call_check_eviction_progress": {0, 20, 130, -1} | set(range(1, 134)),
}
SENT = re.compile(r"Called Alert \(send_notification\) for VM: ([0-9a-fA-F-]+)\\nRetval: (-?\d+)$")
LOG_LINE = re.compile(r"^\S+ \d+ (\d+) ([^:]+): (.*)$")
SET_ASIDE = re.compile(r"outbox\.db\.\w+-\d{8}T\d{6}Z$")  # a copy the outbox set aside, by its time stamp
FAILURE_LEVEL = 16
PUBLISHER = "NotificationSupplier"


def kind_of(point):
    if point.startswith("libc/mm/"):
        return "memory"
    if point.startswith("posix/io/net/"):
        return "network"
    return "I/O"


def failed_calls(work):
    counts = {"I/O": 0, "memory": 0, "network": 0}
    for line in read_lines(os.path.join(work, "failed-calls")):
        point, _, count = line.rpartition(" ")
        counts[kind_of(point)] += int(count)
    return counts


def outbox_rows(work, failures):
    """The payloads left in the outbox, after checking that it is whole."""
    path = os.path.join(work, "outbox", "outbox.db")
    names = os.listdir(os.path.dirname(path)) if os.path.isdir(os.path.dirname(path)) else []
    aside = [name for name in names if SET_ASIDE.match(name)]
    if aside:
        failures.append(f"the outbox was set aside as {', '.join(sorted(aside))}: its alerts wait for an operator")
    if not os.path.exists(path):
        return []
    try:
        db = sqlite3.connect(path)
        verdict = [row[0] for row in db.execute("PRAGMA integrity_check")]
        if verdict != ["ok"]:
            failures.append(f"integrity_check of the outbox says: {'; '.join(verdict)[:300]}")
        rows = [row[0] for row in db.execute("SELECT payload FROM events")]
        db.close()
    except sqlite3.Error as e:
        failures.append(f"the outbox cannot be read: {e}")
        return []
    return [bytes(row).decode("utf-8", "replace") if isinstance(row, bytes) else str(row) for row in rows]


def raise_results(log_lines):
    """The publisher's result for each VM whose alert it was given, by VM id (32 hex digits)."""
    results = {}
    for line in log_lines:
        if m := SENT.search(line):
            results[m.group(1).replace("-", "").lower()] = int(m.group(2))
    return results


def repeated_failures(log_lines):
    """Publisher failures logged a third time with nothing between: logged once per retry, not once. (Twice
    may be two failures whose recovery line a failed allocation kept out of the log.)"""
    repeated = []
    last = None
    run = 0
    for line in log_lines:
        m = LOG_LINE.match(line)
        if not m or m.group(2) != PUBLISHER:
            continue
        message = re.sub(r"\d+", "#", m.group(3))
        run = run + 1 if message == last else 1
        if int(m.group(1)) >= FAILURE_LEVEL and run >= 3:
            repeated.append(m.group(3))
        last = message
    return repeated


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True)
    for name in ("seed", "status", "hung", "http-timeout"):
        parser.add_argument("--" + name, type=int, required=True)
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("--min-failed", type=int, default=200)
    parser.add_argument("--quiet", action="store_true")
    args = parser.parse_args()
    work = args.work
    failures = []

    run = Run(os.path.join(work, "engine.out"), 0)
    if args.hung:
        failures.append("the engine hung: it had not stopped when the run's bound was up")
    elif args.status not in (0, 1) or run.done is None:
        failures.append(f"the engine crashed (exit status {args.status}, no summary)")
    for line in run.lines:
        call, result = None, None
        if m := re.match(r"call_evict_data: (-?\d+)$", line):
            call, result = "call_evict_data", int(m.group(1))
        elif m := re.match(r"polling: .* last result (-?\d+)$", line):
            call, result = "call_check_eviction_progress", int(m.group(1))
        if call and result not in DOCUMENTED[call]:
            failures.append(f"{call} returned {result}, which it does not document")
    if run.longest is not None and run.longest > args.http_timeout + CALL_MARGIN_SECONDS:
        failures.append(f"a call blocked {run.longest:.1f} s, past http_timeout {args.http_timeout} s "
                        f"+ {CALL_MARGIN_SECONDS} s")

    log_lines = read_lines(os.path.join(work, "kscdp.log"))
    results = raise_results(log_lines)
    delivered_lines = [l for l in read_lines(os.path.join(work, "alerts.jsonl")) if l.strip()]
    # By VM alone: an alert raised while the configuration could not be read
    # names no server.
    delivered = {payload_key(l)[1] for l in delivered_lines if payload_key(l)}
    in_outbox = {payload_key(p)[1] for p in outbox_rows(work, failures) if payload_key(p)}
    accepted = refused = unknown = kept_delivered = kept_outbox = 0
    missing = []
    for number in run.own_alerts():
        vm = "%016x%016x" % (args.seed, number)
        result = results.get(vm)
        if result is None:
            unknown += 1  # the raise failed before the publisher had it, and said so in the log
            continue
        if result != 0:
            refused += 1
            continue
        accepted += 1
        if vm in delivered:
            kept_delivered += 1
        elif vm in in_outbox:
            kept_outbox += 1
        else:
            missing.append(number)
    if missing:
        failures.append(f"{len(missing)} accepted alerts are neither delivered nor in the outbox, the first "
                        f"number {missing[0]}")

    passes = sum(PASS_LOG in l for l in log_lines)
    daemon_posts = backup_requests(work, failures)
    if daemon_posts > passes:
        failures.append(f"the master got {daemon_posts} backup requests for {passes} eviction passes: a VM was "
                        f"requested twice in one pass")

    repeated = repeated_failures(log_lines)
    if repeated:
        failures.append(f"{len(repeated)} failures were logged again at a retry, the first: {repeated[0][:200]}")

    counts = failed_calls(work)
    total = sum(counts.values())
    if total < args.min_failed or 0 in counts.values():
        failures.append(f"only {total} calls failed ({counts}): at least {args.min_failed}, of every kind")

    if not args.quiet:
        print(f"faults: seed {args.seed}, {kept_delivered + kept_outbox} of {accepted} alerts kept "
              f"({kept_delivered} delivered, {kept_outbox} in the outbox), {refused} refused, {unknown} not raised, "
              f"{total} calls failed (I/O {counts['I/O']}, memory {counts['memory']}, "
              f"network {counts['network']}), {args.seconds:.1f} s")
        for failure in failures:
            print("faults: " + failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
