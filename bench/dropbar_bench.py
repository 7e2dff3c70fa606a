#!/usr/bin/env python3
"""Drop Bar round trips through sk against its running application.

Starts `skelvo --headless` in a temporary SKELVO_HOME and times, as the wall time of the sk
process (median of several runs):
  (a) `sk status`, the round-trip floor;
  (b) `sk add --stack` of 1,000 small files, fresh files each run, `sk clear` between runs;
  (c) `sk list-items --json` of a Drop Bar of 200 stacks of 50 items each;
and reports the application's peak resident memory (VmHWM).

    python3 bench/dropbar_bench.py [BUILD_DIR]

Exit status: 0 when every target is met, 1 when a target is missed, 2 when a step fails
(sk answers with an error, or the Drop Bar does not hold what was added).
"""
import json
import os
import statistics
import sys
import tempfile
import time

from benchsupport import ROOT, StepFailed, app_environment, programs, run_sk, start_app

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
SK, SKELVO = programs(BUILD)

ADD_FILES = 1000
STACKS = 200
STACK_ITEMS = 50
ADD_RUNS = 5
ADD_TARGET_MS = 1000.0
LIST_TARGET_MS = 100.0


def sk(env, *arguments):
    """Runs sk; returns its standard output and how long it took in ms. An error fails the step."""
    start = time.perf_counter()
    result = run_sk(SK, env, arguments)
    return result.stdout, (time.perf_counter() - start) * 1000.0


def make_files(folder, count):
    os.makedirs(folder)
    paths = []
    for i in range(count):
        path = os.path.join(folder, f"file-{i:04}.txt")
        with open(path, "w") as file:
            file.write(f"item {i}\n")
        paths.append(path)
    return paths


def stacks(env):
    listing, _ = sk(env, "list-items", "--json")
    try:
        return json.loads(listing)
    except ValueError:
        raise StepFailed(f"`sk list-items --json` did not answer JSON: {listing[:200]!r}")


def expect_stacks(env, count, items):
    found = stacks(env)
    sizes = [len(stack.get("items", [])) for stack in found]
    if sizes != [items] * count:
        raise StepFailed(f"the Drop Bar should hold {count} stack(s) of {items} items, "
                         f"but holds stacks of {sizes[:10]}{' …' if len(sizes) > 10 else ''}")


def add_figure(env, home):
    samples = []
    for run in range(ADD_RUNS):
        paths = make_files(os.path.join(home, f"add-{run}"), ADD_FILES)
        _, elapsed = sk(env, "add", "--stack", *paths)
        samples.append(elapsed)
        if run == 0:
            expect_stacks(env, 1, ADD_FILES)
        sk(env, "clear")
    return statistics.median(samples)


def list_figure(env, home):
    for stack in range(STACKS):
        paths = make_files(os.path.join(home, f"stack-{stack}"), STACK_ITEMS)
        sk(env, "add", "--stack", *paths)
    expect_stacks(env, STACKS, STACK_ITEMS)
    return statistics.median(sk(env, "list-items", "--json")[1] for _ in range(20))


def peak_rss_mb(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024.0
    return float("nan")


def report(figures, rss):
    rows = [
        ("sk status (round-trip floor)", figures.get("status"), None),
        (f"sk add --stack, {ADD_FILES} files", figures.get("add"), ADD_TARGET_MS),
        (f"sk list-items --json, {STACKS}x{STACK_ITEMS} items", figures.get("list"),
         LIST_TARGET_MS),
    ]
    print("Drop Bar through sk (skelvo --headless), median wall time of the sk process")
    print(f"{'':42} {'ms':>12} {'target':>12}  result")
    missed = False
    for name, value, target in rows:
        shown = "not measured" if value is None else f"{value:.2f}"
        goal = "" if target is None else f"< {target:.0f} ms"
        if target is None or value is None:
            result = "" if target is None else "FAIL"
        else:
            result = "PASS" if value < target else "FAIL"
        missed = missed or result == "FAIL"
        print(f"{name:42} {shown:>12} {goal:>12}  {result}")
    if rss is not None:
        print(f"skelvo peak resident memory (VmHWM): {rss:.1f} MB")
    return missed


def main():
    for program in (SK, SKELVO):
        if not os.access(program, os.X_OK):
            print(f"dropbar_bench: {program} is missing; build sk and skelvo first",
                  file=sys.stderr)
            return 2
    figures = {}
    rss = None
    failure = None
    with tempfile.TemporaryDirectory() as home:
        env = app_environment(home)
        env.pop("DISPLAY", None)
        env.pop("WAYLAND_DISPLAY", None)
        log_path = os.path.join(home, "skelvo.log")
        with open(log_path, "wb") as log:
            app = None
            try:
                app = start_app(SKELVO, SK, env, log)
                figures["status"] = statistics.median(sk(env, "status")[1] for _ in range(50))
                figures["add"] = add_figure(env, home)
                figures["list"] = list_figure(env, home)
            except StepFailed as error:
                failure = str(error)
            finally:
                if app is not None and app.poll() is None:
                    rss = peak_rss_mb(app.pid)
                    app.terminate()
                    app.wait(10)
        if failure:
            with open(log_path, "rb") as log:
                tail = log.read().decode(errors="replace").strip().splitlines()[-10:]
    missed = report(figures, rss)
    if failure:
        print(f"\ndropbar_bench: step failed: {failure}", file=sys.stderr)
        if tail:
            print("last lines of the skelvo log:\n  " + "\n  ".join(tail), file=sys.stderr)
        return 2
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
