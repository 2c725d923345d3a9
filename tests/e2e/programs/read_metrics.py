#!/usr/bin/python3
"""Reads a metrics file with the Prometheus client's own parser and prints
each sample as one line, `name{label="value",...} value`, labels sorted;
fails when the file does not parse or a family lacks its HELP or TYPE."""
import sys

from prometheus_client.parser import text_string_to_metric_families


def main(path):
    with open(path, encoding="utf-8") as metrics_file:
        text = metrics_file.read()
    for family in text_string_to_metric_families(text):
        if not family.documentation or family.type == "unknown":
            sys.exit(f"read_metrics: {family.name} has no # HELP or # TYPE line")
        for sample in family.samples:
            labels = ",".join(f'{key}="{value}"' for key, value in sorted(sample.labels.items()))
            value = sample.value
            shown = str(int(value)) if float(value).is_integer() else repr(value)
            print(f"{sample.name}{{{labels}}} {shown}")


if __name__ == "__main__":
    main(sys.argv[1])
