"""The verdicts scripts/bench prints: each goal judged in its own direction and
units, medians taken from repetitions, and anything missing counted against
the run rather than left out."""
import contextlib
import io
import json
import os
import tempfile
import unittest

import bench_results


def record(name, real_time, unit="us", **extra):
    return dict(name=name, run_name=name, run_type="iteration", real_time=real_time, time_unit=unit, **extra)


def aggregate(name, which, real_time, unit="us", **extra):
    return dict(record(name, real_time, unit, **extra), name=f"{name}_{which}", run_type="aggregate",
                aggregate_name=which)


def every_goal(scale):
    """One record per value and baseline; `scale` > 1 moves every value past its
    goal by that factor, < 1 keeps every value that far inside it."""
    fps = 0.95 / scale
    return [
        record("ApiReadReg/real_time", 145 * scale),
        record("RawHidrawReadReg/real_time", 100_000, unit="ns"),  # units differ on purpose
        # Per read over four threads; against one serial read, so scale twice.
        record("ApiReadRegParallel/4/real_time/threads:4", 145 * scale * scale),
        record("ApiScan/1/real_time", 11.5 * scale, unit="ms"),
        record("ShellUdevadmWalks/1/real_time", 10_000, unit="us"),
        record("FrameCopy/640/480/real_time", 105 * scale, bytes_per_second=6e9),
        record("ColdMemcpy/640/480/real_time", 100, bytes_per_second=6e9),
        record("ApiStreamFps/640/480/manual_time", 100, unit="ms", items_per_second=1000 * fps),
        record("RawV4l2Fps/640/480/real_time", 1000, items_per_second=1000),
        record("ApiStreamStop/640/480/iterations:10/manual_time", 33_000 * scale, frame_interval_us=33_333),
        record("ApiStreamStop/idle/iterations:20/manual_time", 4.9 * scale, unit="ms"),
        record("ApiAllocsPerFrame/640/480", 1, allocs_per_frame=0 if scale < 1 else 0.001),
    ]


def run(*files):
    """bench_results.main over JSON files of these records: (exit status, output)."""
    with tempfile.TemporaryDirectory() as tmp:
        paths = []
        for i, benchmarks in enumerate(files):
            paths.append(os.path.join(tmp, f"{i}.json"))
            with open(paths[-1], "w") as f:
                if benchmarks is not None:  # None: an empty file
                    json.dump({"benchmarks": benchmarks}, f)
        out = io.StringIO()
        with contextlib.redirect_stdout(out):
            status = bench_results.main(paths)
    return status, out.getvalue()


def verdicts(output):
    """Value name -> last column of its table row."""
    rows = [line.split() for line in output.splitlines()[1:] if line and not line.startswith(("reference", "FAILED"))]
    return {r[0]: r[-1] for r in rows if r[-1] in ("met", "MISSED")}


class Verdicts(unittest.TestCase):
    def test_every_goal_in_its_own_direction(self):
        status, out = run(every_goal(0.97))
        self.assertEqual(set(verdicts(out).values()), {"met"}, out)
        self.assertIn("8 goals met, 0 missed", out)
        self.assertEqual(status, 0)

        status, out = run(every_goal(1.1))
        self.assertEqual(set(verdicts(out).values()), {"MISSED"}, out)
        self.assertIn("0 goals met, 8 missed", out)
        self.assertEqual(status, 1)

    def test_parallel_reads_are_judged_as_one_round_of_serial_reads(self):
        out = run(every_goal(0.97))[1]
        # 136.4 us per read over four threads, 140.65 us per serial read: shown as four of each.
        row = next(line for line in out.splitlines() if line.startswith("ApiReadRegParallel/4"))
        self.assertRegex(row, r"545\.7 us\s+4 x ApiReadReg\s+562\.6 us\s+0\.97 x")

    def test_repetitions_are_judged_by_their_median(self):
        name = "ApiReadReg/real_time"
        # Four repetitions: the median is none of them, and neither the first nor the last.
        benchmarks = [record(name, 500), record(name, 90), record(name, 110), record(name, 80),
                      aggregate(name, "mean", 195), aggregate(name, "median", 100), aggregate(name, "stddev", 203),
                      record("RawHidrawReadReg/real_time", 80)]
        out = run(benchmarks)[1]
        self.assertIn("1.25 x", out)
        self.assertEqual(verdicts(out), {"ApiReadReg": "met"})

    def test_what_did_not_run_counts_against_the_run(self):
        failed = dict(record("RawV4l2Fps/640/480/real_time", 0), error_occurred=True,
                      error_message="frames stopped arriving")
        status, out = run([record("ApiStreamFps/640/480/manual_time", 100, unit="ms", items_per_second=900)],
                          [failed], None)  # an empty file: a filter that matched nothing there
        self.assertRegex(out, r"RawV4l2Fps/640/480\s+not run")
        self.assertIn("FAILED RawV4l2Fps/640/480: frames stopped arriving", out)
        self.assertIn("0 goals met, 1 missed", out)
        self.assertEqual(status, 1)

        # A reference value that failed fails the run even when every goal is met.
        paired = dict(record("StreamFpsPaired/640/480/iterations:10/repeats:1", 0, unit="ms"), error_occurred=True,
                      error_message="no frame arrived")
        status, out = run(every_goal(0.97) + [paired])
        self.assertIn("8 goals met, 0 missed", out)
        self.assertEqual(status, 1)

        alone = [record("ApiReadReg/real_time", 1), record("ApiScan/4/real_time", 1, unit="ms"),
                 record("FrameCopy/320/240/real_time", 1, bytes_per_second=1e9)]
        status, out = run(alone)
        self.assertEqual(verdicts(out), {"ApiReadReg": "MISSED", "ApiScan/4": "MISSED", "FrameCopy/320/240": "MISSED"})
        self.assertEqual(out.count("not run"), 3, out)

        stop = record("ApiStreamStop/640/480/iterations:10/manual_time", 100)  # no frame interval counted
        self.assertEqual(verdicts(run([stop])[1]), {"ApiStreamStop/640/480": "MISSED"})

    def test_rows_by_frame_size_not_by_spelling(self):
        sizes = ("1920/1080", "320/240", "1280/960", "640/480")
        benchmarks = [record(f"FrameCopy/{s}/real_time", 10, bytes_per_second=1e9) for s in sizes]
        benchmarks.append(record("ApiStreamStop/idle/iterations:20/manual_time", 1, unit="ms"))
        benchmarks.append(record("ApiStreamStop/640/480/iterations:10/manual_time", 1, unit="ms",
                                 frame_interval_us=33_333))
        out = run(benchmarks)[1]
        self.assertEqual([name for name in verdicts(out)],
                         ["FrameCopy/320/240", "FrameCopy/640/480", "FrameCopy/1280/960", "FrameCopy/1920/1080",
                          "ApiStreamStop/640/480", "ApiStreamStop/idle"])


if __name__ == "__main__":
    unittest.main()
