"""Reads the benchmark JSON of scripts/bench and prints each value beside its
baseline, the ratio and the goal (run as a script), or hands the values to
scripts/plot-bench (imported)."""
import json
import re
import sys


def load(paths):
    """Run name -> benchmark record (median when repetitions ran), plus the
    names of benchmarks that failed."""
    runs, failed = {}, []
    for path in paths:
        with open(path) as f:
            text = f.read()
        if not text.strip():  # the filter matched nothing in that binary
            continue
        for b in json.loads(text)["benchmarks"]:
            name = re.sub(r"/(real_time|manual_time|iterations:\d+|threads:\d+|repeats:\d+)", "", b["run_name"])
            # With repetitions the median comes after the single runs and replaces them.
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            if b.get("error_occurred"):
                failed.append(f"{name}: {b.get('error_message', '')}")
                runs.pop(name, None)
                continue
            scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b["time_unit"]]
            runs[name] = dict(b, seconds=b["real_time"] * scale)
    return runs, failed


def fmt_time(seconds):
    if seconds >= 1e-3:
        return f"{seconds * 1e3:.2f} ms"
    return f"{seconds * 1e6:.1f} us"


def fmt_rate(per_second, unit):
    for factor, prefix in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if per_second >= factor:
            return f"{per_second / factor:.2f} {prefix}{unit}"
    return f"{per_second:.1f} {unit}"


GROUPS = ("ApiReadReg", "ApiReadRegParallel", "ApiScan", "FrameCopy", "ApiStreamFps", "ApiStreamStop",
          "ApiAllocsPerFrame", "StreamFpsPaired", "ApiStreamStopFreeRun", "RawV4l2Stop")


def table_order(name):
    """Rows in a fixed order whatever order the benchmarks ran in: by group,
    then by the numbers in the name (frame size, camera count), named
    variants such as ApiStreamStop/idle last."""
    group = name.split("/", 1)[0]
    numbers = tuple(int(n) for n in re.findall(r"\d+", name.split("/", 1)[1])) if "/" in name else ()
    return (GROUPS.index(group) if group in GROUPS else len(GROUPS), not numbers, numbers, name)


def rows(runs):
    """(value, shown, baseline, shown, ratio text, goal text, met) for every
    goal whose value ran; a missing baseline counts as missed."""
    out = []

    def time_ratio(name, base, limit, shown=fmt_time, base_label=None, scale=1.0):
        b = runs[name]
        if base not in runs:
            out.append((name, shown(b["seconds"] * scale), base_label or base, "not run", "", f"<= {limit} x", False))
            return
        ratio = b["seconds"] / runs[base]["seconds"]
        out.append((name, shown(b["seconds"] * scale), base_label or base, shown(runs[base]["seconds"] * scale),
                    f"{ratio:.2f} x", f"<= {limit} x", ratio <= limit))

    for name in sorted(runs, key=table_order):
        if name == "ApiReadReg":
            time_ratio(name, "RawHidrawReadReg", 1.5)
        elif name.startswith("ApiReadRegParallel/"):
            # Reported per read over all threads; shown as one round of reads.
            n = int(name.split("/")[1])
            time_ratio(name, "ApiReadReg", 1.0, base_label=f"{n} x ApiReadReg", scale=n)
        elif name.startswith("FrameCopy/"):
            dims = name.split("/", 1)[1]
            b = runs[name]
            base = runs.get(f"ColdMemcpy/{dims}")
            shown = f"{fmt_time(b['seconds'])} {fmt_rate(b['bytes_per_second'], 'B/s')}"
            if base is None:
                out.append((name, shown, f"ColdMemcpy/{dims}", "not run", "", "<= 1.1 x", False))
                continue
            ratio = b["seconds"] / base["seconds"]
            out.append((name, shown, f"ColdMemcpy/{dims}",
                        f"{fmt_time(base['seconds'])} {fmt_rate(base['bytes_per_second'], 'B/s')}",
                        f"{ratio:.2f} x", "<= 1.1 x", ratio <= 1.1))
        elif name.startswith("ApiStreamFps/"):
            dims = name.split("/", 1)[1]
            fps = runs[name]["items_per_second"]
            base = runs.get(f"RawV4l2Fps/{dims}")
            if base is None:
                out.append((name, f"{fps:.0f} fps", f"RawV4l2Fps/{dims}", "not run", "", ">= 0.95 x", False))
                continue
            ratio = fps / base["items_per_second"]
            out.append((name, f"{fps:.0f} fps", f"RawV4l2Fps/{dims}", f"{base['items_per_second']:.0f} fps",
                        f"{ratio:.2f} x", ">= 0.95 x", ratio >= 0.95))
        elif name == "ApiStreamStop/idle":
            s = runs[name]["seconds"]
            out.append((name, fmt_time(s), "", "", "", "<= 5 ms", s <= 5e-3))
        elif name.startswith("ApiStreamStop/"):
            # Against the stream's own frame interval, measured by the same benchmark.
            dims = name.split("/", 1)[1]
            s = runs[name]["seconds"]
            label = f"frame interval {dims}"
            interval = runs[name].get("frame_interval_us")
            if not interval:
                out.append((name, fmt_time(s), label, "no count", "", "<= 1 x", False))
                continue
            interval *= 1e-6
            out.append((name, fmt_time(s), label, fmt_time(interval), f"{s / interval:.2f} x", "<= 1 x",
                        s <= interval))
        elif name.startswith("ApiScan/"):
            time_ratio(name, "ShellUdevadmWalks/" + name.split("/", 1)[1], 1.2)
        elif name.startswith("ApiAllocsPerFrame/"):
            allocs = runs[name].get("allocs_per_frame")
            if allocs is None:
                out.append((name, "no count", "", "", "", "0", False))
            else:
                out.append((name, f"{allocs:.3f}/frame", "", "", "", "0", allocs == 0))
    return out


def main(paths):
    runs, failed = load(paths)
    table = rows(runs)
    headers = ("value", "measured", "baseline", "measured", "ratio", "goal", "")
    cells = [headers] + [r[:6] + ("met" if r[6] else "MISSED",) for r in table]
    widths = [max(len(str(row[i])) for row in cells) for i in range(len(headers))]
    for row in cells:
        print("  ".join(str(c).ljust(w) for c, w in zip(row, widths)).rstrip())
    # For reference, no goal: a stop while frames flood in, against the
    # driver's own tear-down of such a stream and the free-running interval.
    for name in sorted(runs, key=table_order):
        dims = name.split("/", 1)[1] if "/" in name else ""
        raw = runs.get(f"RawV4l2Stop/{dims}")
        if name.startswith("StreamFpsPaired/"):
            r = runs[name]
            if not all(k in r for k in ("ratio", "ratio4", "api_fps", "raw_fps", "raw4_fps")):
                print(f"reference: {name}: no counters")
            else:
                print(f"reference: {name}: taking turns on one node, the library at {r['ratio']:.2f} x the raw "
                      f"loop's rate and at {r['ratio4']:.2f} x the raw loop copying into four buffers in turn "
                      f"(medians of ten rounds; {r['api_fps']:.0f}, {r['raw_fps']:.0f}, {r['raw4_fps']:.0f} fps)")
                if all(r.get(k) for k in ("api_cpu_us", "raw_cpu_us", "raw4_cpu_us")):
                    print(f"reference: {name}: consumer CPU per frame in those turns {r['api_cpu_us']:.1f}, "
                          f"{r['raw_cpu_us']:.1f}, {r['raw4_cpu_us']:.1f} us "
                          f"({r['api_cpu_us'] / r['raw_cpu_us']:.2f} x, {r['api_cpu_us'] / r['raw4_cpu_us']:.2f} x)")
        elif name.startswith("ApiStreamFps/") and "consumer_cpu_us" in runs[name]:
            api = runs[name]["consumer_cpu_us"]
            base = runs.get(f"RawV4l2Fps/{dims}", {}).get("consumer_cpu_us")
            line = f"reference: consumer CPU per frame {dims}: the capture thread {api:.1f} us"
            if base:
                line += f", the raw loop {base:.1f} us ({api / base:.2f} x)"
            print(line)
        elif name.startswith("ApiStreamStopFreeRun/"):
            s = runs[name]["seconds"]
            line = f"reference: {name} {fmt_time(s)}"
            if raw is not None:
                line += (f" = {s / raw['seconds']:.2f} x the driver's own tear-down "
                         f"(RawV4l2Stop/{dims} {fmt_time(raw['seconds'])})")
            fps = runs.get(f"ApiStreamFps/{dims}")
            if fps is not None:
                line += f", {s * fps['items_per_second']:.1f} free-running frame intervals"
            print(line)
        elif name.startswith("RawV4l2Stop/") and f"ApiStreamStopFreeRun/{dims}" not in runs:
            print(f"reference: {name} {fmt_time(raw['seconds'])} (the driver's own tear-down)")
    for line in failed:
        print(f"FAILED {line}")
    met = sum(1 for r in table if r[6])
    missed = len(table) - met
    print(f"{met} goals met, {missed} missed")
    return 0 if missed == 0 and not failed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
