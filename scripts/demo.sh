#!/usr/bin/env bash
# Runs the engine simulator against a local simulated master and broker.
echo "demo: the master and engine simulators are not built yet; nothing to run." >&2
exit 1
