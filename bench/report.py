#!/usr/bin/env python3
"""Pairs the benchmark results (Google Benchmark JSON) and renders them.

Prints one line per pair: <name> <library ops/s> <raw ops/s> <ratio>, where the
ratio is library time / raw time (1.0 = as fast as the raw backend). Writes
docs/benchmarks.md and, with gnuplot, docs/scaling.png.

Usage: report.py RESULTS_DIR DOCS_DIR PROFILE
"""

import datetime
import json
import os
import platform
import subprocess
import sys

RAW_KINDS = ("Raw", "Exec", "Prepared", "Rollback", "NoIndex", "NoFilter")
# Targets on library time / raw time, by name prefix and raw kind.
TARGETS = {
    ("LevelDb/Store", "Raw"): 1.5,
    ("LevelDb/Retrieve", "Raw"): 1.3,
    ("SqliteMem/", "Exec"): 1.2,
    ("SqliteFile/", "Exec"): 1.2,
    # The write-ahead log against the rollback journal: at least 10x faster.
    ("SqliteFile/", "Rollback"): 0.1,
    # Messaging: a routed round trip pays two hops (aim at most 3x the raw
    # socketpair), one-way throughput at least a third of the raw socketpair.
    ("Ipc/RoundTrip", "Raw"): 3.0,
    ("Ipc/OneWay", "Raw"): 3.0,
}
SCALES = (1000, 10000, 100000)
SQLITE_SCALING = [("Scaling/Sqlite%s/%s/%s" % (db, op, kind), "%s %s" % (db.lower(), op.lower()))
                  for kind in ("Lib", "NoIndex") for db in ("File", "Mem")
                  for op in ("Retrieve", "Update", "Delete")]
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(results_dir):
    """Benchmark name -> (CPU ns per op, wall-clock ns per op, counters), medians when repeated."""
    runs = {}
    for name in sorted(os.listdir(results_dir)):
        if not name.endswith(".json"):
            continue
        with open(os.path.join(results_dir, name)) as f:
            data = json.load(f)
        for b in data["benchmarks"]:
            if b.get("error_occurred"):
                print("benchmark failed: %s: %s" % (b["name"], b.get("error_message")),
                      file=sys.stderr)
                continue
            base = b.get("run_name", b["name"]).replace("/real_time", "")
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            unit = UNIT_NS[b.get("time_unit", "ns")]
            counters = {k: v for k, v in b.items()
                        if k in ("matches", "size", "index_bytes_per_record")}
            if base not in runs or b.get("run_type") == "aggregate":
                runs[base] = (b["cpu_time"] * unit, b["real_time"] * unit, counters)
    return runs


def split(name):
    """'LevelDb/Store/Lib' -> ('LevelDb/Store', 'Lib', ''), with an Arg suffix."""
    parts = name.split("/")
    for i, part in enumerate(parts):
        if part == "Lib" or part in RAW_KINDS:
            return "/".join(parts[:i]), part, "/".join(parts[i + 1:])
    return None


def pairs(runs):
    out = []
    for name, (_, _, counters) in runs.items():
        s = split(name)
        if s is None or s[1] != "Lib":
            continue
        op, _, arg = s
        if op.startswith("Scaling/Sqlite"):
            continue  # in the SQLite scaling table
        for kind in RAW_KINDS:
            raw_name = "/".join(p for p in (op, kind, arg) if p)
            if raw_name not in runs:
                continue
            # Against the rollback journal the time is spent waiting for the
            # disk: wall-clock time. Everything else is compared in CPU time,
            # which is steadier on a shared machine.
            clock = 1 if kind == "Rollback" else 0
            lib_ns, raw_ns = runs[name][clock], runs[raw_name][clock]
            label = op + ("/" + arg if arg else "")
            if kind != "Raw":
                label += "(vs %s%s)" % (kind, ", wall-clock" if kind == "Rollback" else "")
            target = None
            for (prefix, tkind), value in TARGETS.items():
                if op.startswith(prefix) and kind == tkind:
                    target = value
            out.append((label, 1e9 / lib_ns, 1e9 / raw_ns, lib_ns / raw_ns, target, counters))
    return out


def machine():
    model, cores = "unknown", os.cpu_count()
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    try:
        cores = int(subprocess.check_output(["nproc"], text=True).strip())
    except (OSError, ValueError, subprocess.CalledProcessError):
        pass
    mem = "unknown"
    try:
        with open("/proc/meminfo") as f:
            for line in f:
                if line.startswith("MemTotal"):
                    mem = "%.1f GiB" % (int(line.split()[1]) / 1024.0 / 1024.0)
                    break
    except OSError:
        pass
    return model, cores, mem


def fmt_rate(v):
    return "%.0f" % v if v >= 100 else "%.1f" % v


def us(runs, name):
    return runs[name][0] / 1e3 if name in runs else float("nan")


def plot(runs, docs_dir, results_dir, series, png_name, title):
    data = os.path.join(results_dir, png_name.replace(".png", ".dat"))
    with open(data, "w") as f:
        for prefix, label in series:
            f.write("# %s\n" % label)
            for n in SCALES:
                name = "%s/%d" % (prefix, n)
                if name in runs:
                    f.write("%d %.6g\n" % (n, runs[name][0] / 1e3))
            f.write("\n\n")
    png = os.path.join(docs_dir, png_name)
    # A dashed line repeats the colour of the solid line it is compared with.
    solid = [p for p, _ in series if "NoIndex" not in p]
    plots = ", ".join("'%s' index %d with linespoints lw 2 pt 7 lc %d%s title '%s'" % (
        data, i, solid.index(prefix.replace("NoIndex", "Lib")) + 1,
        " dt 2" if "NoIndex" in prefix else "", label)
        for i, (prefix, label) in enumerate(series))
    script = "\n".join([
        "set terminal pngcairo size 900,600 font 'Sans,11'",
        "set output '%s'" % png,
        "set title '%s'" % title,
        "set logscale xy",
        "set xlabel 'records in the table'",
        "set ylabel 'microseconds per call (CPU time)'",
        "set xtics ('1k' 1000, '10k' 10000, '100k' 100000)",
        "set xrange [700:140000]",
        "set grid",
        "set key top left",
        "plot " + plots,
        "",
    ])
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return png


def ipc_section(runs, rows):
    """The messaging section: routed against a raw socketpair, wall-clock and CPU."""
    lines = [
        "",
        "## Messaging between daemons (ipc-router)",
        "",
        "`bench/ipc_bench`: every endpoint is a process of its own; `Raw` is a Unix socketpair "
        "between two processes doing the same exchange (one write per message, the reader "
        "reading in bulk), the physical limit of a routed design, which pays two hops. Rows "
        "`Ipc/Link<op>` go from an endpoint on node A to one on node B through two routers "
        "linked over TCP on loopback (three hops), beside a raw TCP connection on loopback "
        "between two processes. Rows `Ipc/<op>` compare wall-clock time, rows `Ipc/Cpu/<op>` "
        "the CPU time of every process involved (the routers included), which a busy machine "
        "does not stretch. Medians of 5 runs. Ratio = routed time per message / raw time per "
        "message (a throughput of at least a third of raw is a ratio of at most 3).",
        "",
        "| Pair | routed msgs/s | raw msgs/s | ratio | target | met |",
        "|---|---:|---:|---:|---:|:---:|",
    ]
    for label, lib, raw, ratio, target, _ in rows:
        if not label.startswith("Ipc/"):
            continue
        met = "" if target is None else ("yes" if ratio <= target else "no")
        tgt = "" if target is None else "%.1fx" % target
        lines.append("| %s | %s | %s | %.2f | %s | %s |" % (label, fmt_rate(lib), fmt_rate(raw),
                                                           ratio, tgt, met))
    if "Ipc/Cost/KillToWatchNotice" in runs:
        lines += ["", "From SIGKILL of a peer's process to its watch notice: %.0f us (median)."
                  % (runs["Ipc/Cost/KillToWatchNotice"][0] / 1e3)]
    if "Ipc/Cost/StopToWatchNotice" in runs:
        lines += ["", "From SIGSTOP of a linked node's router, right after a frame from it, to the "
                  "notice of a watch on one of its endpoints, with the default heartbeat of 500 ms: "
                  "%.3f s (median; the bound is three intervals of silence)."
                  % (runs["Ipc/Cost/StopToWatchNotice"][1] / 1e9)]
    return lines


def main():
    results_dir, docs_dir, profile = sys.argv[1], sys.argv[2], sys.argv[3]
    runs = load(results_dir)
    rows = pairs(runs)
    for label, lib, raw, ratio, _, _ in rows:
        print("%s %s %s %.2f" % (label, fmt_rate(lib), fmt_rate(raw), ratio))

    os.makedirs(docs_dir, exist_ok=True)
    plot(runs, docs_dir, results_dir, [
        ("Scaling/QueryIndexedField", "RetrieveObjects, indexed field"),
        ("Scaling/QueryOtherField", "RetrieveObjects, other field (scan)"),
        ("Scaling/TableSize", "GetObjTableSize"),
        ("Scaling/Open/Lib", "open table (index rebuild + resync)"),
        ("Scaling/Open/Raw", "raw prefix scan"),
    ], "scaling.png", "LevelDB backend: cost per call against table size (CPU time)")
    plot(runs, docs_dir, results_dir,
         [(p, l + (" (no owner index)" if "NoIndex" in p else "")) for p, l in SQLITE_SCALING],
         "sqlite_scaling.png",
         "SQLite backend: one record against table size (CPU time)")
    model, cores, mem = machine()
    now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "notes.md")
    with open(notes_path) as f:
        notes = f.read()

    lines = [
        "# Benchmarks",
        "",
        "Generated by `bench/run%s` on %s." % (" --full" if profile == "full" else "", now),
        "",
        "Machine: %s, %d cores (nproc), %s memory, %s %s. It is a virtual machine "
        "whose timings vary from run to run by tens of percent, most for the pairs that wait on "
        "disk syncs; compare ratios, not single figures. "
        "Decisions about the code were taken on callgrind instruction counts, "
        "not on these timings." % (model, cores, mem, platform.system(), platform.release()),
        "",
        "Times are CPU time, except the pairs against the rollback journal "
        "(`vs Rollback`), which wait on the disk and are compared in wall-clock time.",
        "",
        "Profile: %s (%s)." % (profile, "--benchmark_min_time=0.5, median of 3 repetitions"
                                if profile == "full" else "--benchmark_min_time=0.05, one run"),
        "",
        "## Library against the raw backend",
        "",
        "Ratio = library time per call / raw time per call (1.00 means as fast as the raw "
        "backend). `Raw` is raw LevelDB with the library's keys and values; `Exec` is "
        "`sqlite3_exec` of exactly the library's statement texts; `Prepared` is prepared "
        "statements with bound values, one transaction per operation and no existence check.",
        "",
        "| Pair | library ops/s | raw ops/s | ratio | target | met |",
        "|---|---:|---:|---:|---:|:---:|",
    ]
    for label, lib, raw, ratio, target, counters in rows:
        if label.startswith("Ipc/"):
            continue
        met = "" if target is None else ("yes" if ratio <= target else "no")
        tgt = "" if target is None else "%.1fx" % target
        text = "%.2f" % ratio if ratio >= 0.1 else "%.4f (%.0fx faster)" % (ratio, 1 / ratio)
        lines.append("| %s | %s | %s | %s | %s | %s |" % (label, fmt_rate(lib), fmt_rate(raw),
                                                         text, tgt, met))
    lines += [
        "",
        "## What required behaviour costs on its own",
        "",
        "| Measurement | time per call |",
        "|---|---:|",
    ]
    for name in sorted(runs):
        if "/Cost/" in name and not name.startswith("Ipc/"):
            lines.append("| %s | %.2f us |" % (name, runs[name][0] / 1e3))
    lines += [
        "",
        "## Scaling (LevelDB)",
        "",
        "![scaling](scaling.png)",
        "",
        "| Records | indexed query | scan query | table size | open table | raw prefix scan "
        "| index bytes/record |",
        "|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for n in (1000, 10000, 100000):
        ib = runs.get("Scaling/Open/Lib/%d" % n, (0, 0, {}))[2].get("index_bytes_per_record")
        lines.append("| %d | %.2f us | %.0f us | %.0f us | %.0f us | %.0f us | %s |" % (
            n, us(runs, "Scaling/QueryIndexedField/%d" % n),
            us(runs, "Scaling/QueryOtherField/%d" % n), us(runs, "Scaling/TableSize/%d" % n),
            us(runs, "Scaling/Open/Lib/%d" % n), us(runs, "Scaling/Open/Raw/%d" % n),
            "%.0f" % ib if ib is not None else "n/a"))
    lines += [
        "",
        "## Scaling (SQLite)",
        "",
        "![SQLite scaling](sqlite_scaling.png)",
        "",
        "One record's `RetrieveObject`, `UpdateObject` and `DeleteSingleObject` (the deleted record is "
        "stored again untimed) in a table of N records, in microseconds per call; the same table "
        "without the side table's owner index (as in databases written before it) for comparison. "
        "Aim: the 100k figure within 2x of the 1k figure.",
    ]
    for title, kind_rows in (("With the owner index", SQLITE_SCALING[:6]),
                             ("Without it (before)", SQLITE_SCALING[6:])):
        lines += [
            "",
            "%s:" % title,
            "",
            "| Records | " + " | ".join(l for _, l in kind_rows) + " |",
            "|---:|" + "---:|" * len(kind_rows),
        ]
        for n in SCALES:
            lines.append("| %d | " % n + " | ".join(
                "%.0f" % us(runs, "%s/%d" % (p, n)) for p, _ in kind_rows) + " |")
        lines.append("| 100k / 1k | " + " | ".join(
            "%.1fx" % (us(runs, "%s/100000" % p) / us(runs, "%s/1000" % p)) for p, _ in kind_rows)
            + " |")
    lines += ipc_section(runs, rows)
    lines += ["", notes.strip(), ""]
    with open(os.path.join(docs_dir, "benchmarks.md"), "w") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()
