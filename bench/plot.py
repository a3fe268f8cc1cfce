#!/usr/bin/env python3
"""Scaling plots and the results table from the benchmark's JSON output.

    plot.py RESULTS.json OUT_DIR

Writes OUT_DIR/scale_groups.png, scale_slots.png, scale_rmgrp_front.png (latency of the library
and of its floor against the table size, log-log) and OUT_DIR/table.md (median time, floor, ratio
and allocations of every row). Needs matplotlib for the plots; the table is written without it.
"""
import json
import os
import sys


def medians(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"])
        if name.endswith("_BigO") or name.endswith("_RMS"):
            continue
        rows[name] = b
    return data, rows


def to_ns(b):
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
    return b["real_time"] * scale


def fmt_ns(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    return f"{ns:.1f} ns"


def slopes(data):
    out = {}
    for b in data["benchmarks"]:
        name = b["name"]
        if name.endswith("_BigO"):
            unit = b.get("time_unit", "ns")
            out[name[: -len("_BigO")]] = f"{b['real_coefficient']:.2f} {unit} per N"
    return out


def write_table(rows, data, path):
    lines = ["| Row | Median | Floor | Ratio | Allocs/call |", "|---|---:|---:|---:|---:|"]
    for name, b in rows.items():
        if name.startswith("floor/") or name.startswith("scale/"):
            continue
        floor = rows.get("floor/" + name)
        ratio = b.get("ratio")
        floor_txt = fmt_ns(to_ns(floor)) if floor else "–"
        ratio_txt = f"{to_ns(b) / to_ns(floor):.2f}" if floor else (f"{ratio:.2f}" if ratio else "–")
        extra = ""
        if name.startswith("create/"):
            extra = (f" (region {b.get('region_MB', 0):.0f} MB, +{b.get('shared_kb_created', 0):.0f} kB "
                     f"shared after create, +{b.get('shared_kb_128grp', 0):.0f} kB after 128 groups)")
        lines.append(f"| `{name}`{extra} | {fmt_ns(to_ns(b))} | {floor_txt} | {ratio_txt} | "
                     f"{b.get('allocs', 0):.0f} |")
    lines.append("")
    lines.append("| Series | Library slope | Floor slope |")
    lines.append("|---|---:|---:|")
    s = slopes(data)
    for series in ("scale/grp_get_last", "scale/rsc_get_last", "scale/rmgrp_front"):
        lines.append(f"| `{series}` | {s.get(series, '–')} | {s.get('floor/' + series, '–')} |")
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def series(rows, prefix):
    pts = []
    for name, b in rows.items():
        if name.startswith(prefix + "/"):
            tail = name[len(prefix) + 1:]
            if tail.isdigit():
                pts.append((int(tail), to_ns(b)))
    return sorted(pts)


def plot(rows, out_dir):
    try:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("matplotlib not found (Debian: python3-matplotlib); plots skipped", file=sys.stderr)
        return
    charts = [
        ("scale/grp_get_last", "scale_groups.png", "groups in use (lookup of the last)"),
        ("scale/rsc_get_last", "scale_slots.png", "resource slots in use (lookup of the last)"),
        ("scale/rmgrp_front", "scale_rmgrp_front.png", "groups in use (remove the first, add again)"),
    ]
    for prefix, file, xlabel in charts:
        lib = series(rows, prefix)
        floor = series(rows, "floor/" + prefix)
        if not lib:
            continue
        fig, ax = plt.subplots(figsize=(6, 4), dpi=100)
        ax.plot([x for x, _ in lib], [y for _, y in lib], "o-", label="library")
        if floor:
            ax.plot([x for x, _ in floor], [y for _, y in floor], "s--", label="floor")
        ax.set_xscale("log", base=2)
        ax.set_yscale("log")
        ax.set_xlabel(xlabel)
        ax.set_ylabel("median time per call (ns)")
        ax.set_title(prefix)
        ax.grid(True, which="both", alpha=0.3)
        ax.legend()
        fig.tight_layout()
        fig.savefig(os.path.join(out_dir, file))
        plt.close(fig)


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    data, rows = medians(sys.argv[1])
    os.makedirs(sys.argv[2], exist_ok=True)
    write_table(rows, data, os.path.join(sys.argv[2], "table.md"))
    plot(rows, sys.argv[2])
    return 0


if __name__ == "__main__":
    sys.exit(main())
