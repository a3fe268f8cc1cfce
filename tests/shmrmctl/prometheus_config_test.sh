#!/bin/sh
# The Prometheus configurations that docs/monitoring.md shows are valid, as written, for the
# promtool of Debian's prometheus (exit 77, skipped, where it is not installed): the site's
# (with its node list, token file and rules) and the global one that federates the sites.
set -eu
docs=$1
if ! command -v promtool >/dev/null; then
  echo "SKIP: promtool (Debian prometheus) is not installed"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$docs"/prometheus.yml "$docs"/global.yml "$docs"/vexshmrm-rules.yml "$docs"/vexshmrm-nodes.yml "$work"/
echo "not-a-real-token" >"$work/vexshmrm.token"
promtool check config "$work/prometheus.yml"
promtool check config "$work/global.yml"
# The node list as file discovery reads it: every node a target of the job, with its labels.
cd "$work"
promtool check service-discovery --timeout=5s prometheus.yml vexshmrm >targets.json 2>sd.log
nodes=$(grep -c '"instance": "node[0-9]*.example:9477"' targets.json || true)
west=$(grep -c '"cluster": "west"' targets.json || true)
if [ "$nodes" != 4 ] || [ "$west" != 2 ]; then  # west: in discoveredLabels and labels
  echo "expected 4 nodes (one in cluster west) from vexshmrm-nodes.yml, found $nodes:" >&2
  cat targets.json sd.log >&2
  exit 1
fi
echo "prometheus configuration: ok"
