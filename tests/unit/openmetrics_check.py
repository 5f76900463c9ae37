#!/usr/bin/python3
"""Reads OpenMetrics text (or with --prometheus the Prometheus text format) with the
prometheus_client parsers (Debian's python3-prometheus-client) and prints one line per sample,
"TYPE NAME{LABELS} VALUE" with the labels sorted, so that a test can compare what a real scraper
understood. A text the parser refuses, or a family without help, ends with status 1.
Usage: openmetrics_check.py [--prometheus] FILE"""
import sys

from prometheus_client import parser as prometheus
from prometheus_client.openmetrics import parser as openmetrics

args = sys.argv[1:]
families = openmetrics.text_string_to_metric_families
if args[0] == "--prometheus":
    families = prometheus.text_string_to_metric_families
    args = args[1:]
text = open(args[0], encoding="utf-8").read()
try:
    for family in families(text):
        if not family.documentation:
            raise ValueError("family %s has no HELP" % family.name)
        for sample in family.samples:
            labels = ",".join("%s=%s" % (k, v) for k, v in sorted(sample.labels.items()))
            print("%s %s{%s} %s" % (family.type, sample.name, labels, sample.value))
except ValueError as error:
    print("openmetrics_check: %s" % error, file=sys.stderr)
    sys.exit(1)
