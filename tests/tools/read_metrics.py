"""read_metrics.py FILE: a strict reader of OpenMetrics and one of the older text format of Prometheus find the same
samples in it, and every family says what it is."""
import sys

from prometheus_client import openmetrics, parser
import prometheus_client.openmetrics.parser

with open(sys.argv[1], encoding="utf-8", newline="") as file:
    text = file.read()


def samples(families):
    return {(s.name, tuple(sorted(s.labels.items()))): float(s.value) for f in families for s in f.samples
}

new = list(openmetrics.parser.text_string_to_metric_families(text))
old = list(parser.text_string_to_metric_families(text))
assert samples(new), "no samples"
assert samples(new) == samples(old), (samples(new), samples(old))
for family in new + old:
    assert family.type == "gauge", family
    assert family.documentation.endswith("."), family
for family in new:
    for unit in "seconds", "bytes":
        assert (family.unit == unit) == family.name.endswith("_" + unit), family
