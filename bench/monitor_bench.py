#!/usr/bin/env python3
"""Folder monitoring of the running application, against its targets.

Starts `skelvo --headless` in a temporary SKELVO_HOME, adds a "Run Script" action whose script
records the time it starts and the files it was given, and monitors folders with it through
`sk monitor add FOLDER --action NAME`. Figures:
  (a) CPU time (utime + stime from /proc/PID/stat) used over 60 s by skelvo watching an idle
      folder of 100,000 files, beside, over the same seconds, a 1 s lstat polling loop over
      that folder (a small C program, built here with cc) and `inotifywait -m` on it;
  (b) the delay from a file's last write to its action starting (median and worst of several
      files, each written in a few pieces);
  (c) 20,000 files created while skelvo is stopped with SIGSTOP (more events than the
      kernel's default inotify queue of 16,384 holds), then SIGCONT: each file must be
      delivered exactly once.

    python3 bench/monitor_bench.py [BUILD_DIR] [--quick]

--quick is a smoke run: 10 s of idle, 10,000 idle files, 3 delay samples, a 2,000-file burst
(too few to overflow the queue). Exit status: 0 when every target is met, 1 when a target is
missed, 2 when a step fails (sk answers with an error, a helper is missing).
"""
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from benchsupport import ROOT, StepFailed, app_environment, programs, run_sk, start_app

ARGS = [a for a in sys.argv[1:] if not a.startswith("--")]
QUICK = "--quick" in sys.argv[1:]
BUILD = os.path.abspath(ARGS[0] if ARGS else os.path.join(ROOT, "build"))
SK, SKELVO = programs(BUILD)

IDLE_FILES = 10_000 if QUICK else 100_000
IDLE_SECONDS = 10 if QUICK else 60
DELAY_SAMPLES = 3 if QUICK else 5
BURST_FILES = 2_000 if QUICK else 20_000
SETTLE_S = 2.0  # the settle interval of the application
IDLE_TARGET_PERCENT = 0.5
DELAY_TARGET_S = SETTLE_S + 0.3
ACTION = "Record arrival"
TICK = os.sysconf("SC_CLK_TCK")
WATCHED_EVENTS = "create,close_write,moved_to,moved_from,attrib,modify,delete,delete_self,move_self"

# What the description's watcher does on every tick: lstat every entry of the folder.
POLL_LOOP_C = r"""
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
int main(int argc, char** argv) {
    for (;;) {
        DIR* dir = opendir(argv[1]);
        if (!dir) return 1;
        struct dirent* entry;
        struct stat info;
        while ((entry = readdir(dir))) fstatat(dirfd(dir), entry->d_name, &info,
                                               AT_SYMLINK_NOFOLLOW);
        closedir(dir);
        sleep(1);
    }
}
"""

RECORD_SCRIPT = """#!/bin/sh
# Records when the action started and which files it was given.
now=$(date +%s.%N)
for f in "$@"; do printf '%s %s\\n' "$now" "$f"; done >> "{log}"
"""


def sk(env, *arguments):
    return run_sk(SK, env, arguments).stdout.decode(errors="replace")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK  # utime, stime


def make_files(folder, count, prefix="f"):
    os.makedirs(folder, exist_ok=True)
    for i in range(count):
        with open(os.path.join(folder, f"{prefix}{i:06}"), "w") as file:
            file.write("x")


def deliveries(log_path, folder):
    """The files of `folder` the action was given, in order, with the time each run started."""
    found = []
    if os.path.exists(log_path):
        with open(log_path) as log:
            for line in log:
                stamp, _, path = line.rstrip("\n").partition(" ")
                if os.path.dirname(path) == folder:
                    found.append((float(stamp), path))
    return found


def idle_figure(env, app, home):
    folder = os.path.join(home, "idle")
    make_files(folder, IDLE_FILES)
    poll_source = os.path.join(home, "poll.c")
    poll_program = os.path.join(home, "poll")
    with open(poll_source, "w") as source:
        source.write(POLL_LOOP_C)
    if subprocess.run(["cc", "-O2", "-o", poll_program, poll_source]).returncode != 0:
        raise StepFailed("cc could not build the lstat polling loop")
    if not shutil.which("inotifywait"):
        raise StepFailed("inotifywait is missing (package inotify-tools; scripts/setup.sh)")
    sk(env, "monitor", "add", folder, "--action", ACTION)
    poller = subprocess.Popen([poll_program, folder])
    # The events skelvo asks for: with all events, inotifywait would also report the polling
    # loop's every opendir and readdir of the folder.
    watcher = subprocess.Popen(["inotifywait", "-m", "-q", "-e", WATCHED_EVENTS, folder],
                               stdout=subprocess.DEVNULL)
    try:
        time.sleep(3)  # past the start-up listing of each
        pids = {"skelvo": app.pid, "poll": poller.pid, "inotifywait": watcher.pid}
        before = {name: cpu_seconds(pid) for name, pid in pids.items()}
        start = time.monotonic()
        time.sleep(IDLE_SECONDS)
        wall = time.monotonic() - start
        return {name: (cpu_seconds(pid) - before[name]) / wall * 100.0
                for name, pid in pids.items()}, folder
    finally:
        poller.kill()
        watcher.kill()
        poller.wait()
        watcher.wait()


def delay_figure(folder, log_path):
    samples = []
    for sample in range(DELAY_SAMPLES):
        path = os.path.join(folder, f"delay-{sample}.txt")
        with open(path, "w") as file:
            for piece in range(5):
                if piece:
                    time.sleep(0.1)
                file.write("piece\n")
                file.flush()
            last_write = time.time()
        deadline = last_write + SETTLE_S + 20
        while True:
            started = [stamp for stamp, delivered in deliveries(log_path, folder)
                       if delivered == path]
            if started:
                samples.append(started[0] - last_write)
                break
            if time.time() > deadline:
                raise StepFailed(f"{path} was not delivered within {SETTLE_S + 20:.0f} s")
            time.sleep(0.05)
    return statistics.median(samples), max(samples)


def burst_figure(env, app, home, log_path):
    folder = os.path.join(home, "burst")
    os.makedirs(folder)
    sk(env, "monitor", "add", folder, "--action", ACTION)
    os.kill(app.pid, signal.SIGSTOP)
    try:
        make_files(folder, BURST_FILES, prefix="b")
    finally:
        os.kill(app.pid, signal.SIGCONT)
    expected = {os.path.join(folder, f"b{i:06}") for i in range(BURST_FILES)}
    # Everything is in once the count stops growing for a while after reaching the total;
    # waiting on past that catches a second delivery.
    deadline = time.time() + 180
    last_count, last_change = -1, time.time()
    while time.time() < deadline:
        count = len(deliveries(log_path, folder))
        if count != last_count:
            last_count, last_change = count, time.time()
        quiet = time.time() - last_change
        if (count >= BURST_FILES and quiet > 2 * SETTLE_S + 2) or quiet > 30:
            break
        time.sleep(0.2)
    delivered = [path for _, path in deliveries(log_path, folder)]
    missed = len(expected - set(delivered))
    duplicates = len(delivered) - len(set(delivered))
    return missed, duplicates


def report(figures):
    cpu = figures.get("cpu", {})
    delay = figures.get("delay")
    burst = figures.get("burst")
    rows = []
    print(f"Folder monitoring (skelvo --headless), {'quick smoke run' if QUICK else 'full run'}")
    print(f"{'':58} {'value':>12} {'target':>12}  result")

    def row(name, value, shown, target, passed):
        result = "" if target is None else ("FAIL" if value is None or not passed else "PASS")
        rows.append(result)
        print(f"{name:58} {shown if value is not None else 'not measured':>12} "
              f"{target or '':>12}  {result}")

    idle = f"{IDLE_FILES:,} idle files, {IDLE_SECONDS} s"
    value = cpu.get("skelvo")
    row(f"(a) CPU of skelvo watching {idle}", value, f"{value or 0:.3f} %",
        f"< {IDLE_TARGET_PERCENT} %", value is not None and value < IDLE_TARGET_PERCENT)
    for name, label in (("poll", "1 s lstat loop (C, readdir+fstatat)"),
                        ("inotifywait", "inotifywait -m, the same events")):
        value = cpu.get(name)
        row(f"    beside: {label}", value, f"{value or 0:.3f} %", None, True)
    value = delay[0] if delay else None
    row(f"(b) last write → action start, median of {DELAY_SAMPLES}", value, f"{value or 0:.3f} s",
        f"< {DELAY_TARGET_S:.1f} s", value is not None and value < DELAY_TARGET_S)
    value = delay[1] if delay else None
    row("    worst", value, f"{value or 0:.3f} s", f"< {DELAY_TARGET_S:.1f} s",
        value is not None and value < DELAY_TARGET_S)
    value = burst[0] if burst else None
    row(f"(c) {BURST_FILES:,} files during SIGSTOP: missed", value, f"{value or 0}", "0",
        value == 0)
    value = burst[1] if burst else None
    row("    delivered twice", value, f"{value or 0}", "0", value == 0)
    return "FAIL" in rows


def main():
    for program in (SK, SKELVO):
        if not os.access(program, os.X_OK):
            print(f"monitor_bench: {program} is missing; build sk and skelvo first",
                  file=sys.stderr)
            return 2
    figures = {}
    failure = None
    tail = []
    with tempfile.TemporaryDirectory() as home:
        env = app_environment(home)
        env.pop("DISPLAY", None)
        env.pop("WAYLAND_DISPLAY", None)
        log_path = os.path.join(home, "arrivals.log")
        script = os.path.join(home, "record.sh")
        with open(script, "w") as file:
            file.write(RECORD_SCRIPT.replace("{log}", log_path))
        os.chmod(script, 0o755)
        app_log = os.path.join(home, "skelvo.log")
        with open(app_log, "wb") as log:
            app = None
            try:
                app = start_app(SKELVO, SK, env, log)
                sk(env, "add-action", "Run Script", "--name", ACTION, "--options",
                   f"path={script}")
                figures["cpu"], idle_folder = idle_figure(env, app, home)
                figures["delay"] = delay_figure(idle_folder, log_path)
                figures["burst"] = burst_figure(env, app, home, log_path)
            except StepFailed as error:
                failure = str(error)
            finally:
                if app is not None and app.poll() is None:
                    app.terminate()
                    app.wait(10)
        if failure:
            with open(app_log, "rb") as log:
                tail = log.read().decode(errors="replace").strip().splitlines()[-10:]
    missed = report(figures)
    if failure:
        print(f"\nmonitor_bench: step failed: {failure}", file=sys.stderr)
        if tail:
            print("last lines of the skelvo log:\n  " + "\n  ".join(tail), file=sys.stderr)
        return 2
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
