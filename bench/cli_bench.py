#!/usr/bin/env python3
"""Round-trip time of the command-line client against its running application.

Starts `skelvo --headless` in a temporary SKELVO_HOME, fills the grid with 500 actions and
times `sk status` and `sk list --json`; in the same run times CopyQ's client against its own
running server holding 500 items (`copyq size` and a JSON listing of all items).

    python3 bench/cli_bench.py [BUILD_DIR]

CopyQ 6.4 crashes under QT_QPA_PLATFORM=offscreen (it takes any non-X11 platform for
Wayland), so its server runs under Xvfb when that is installed; Skelvo needs neither.
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
SK = os.path.join(BUILD, "bin", "sk")
SKELVO = os.path.join(BUILD, "bin", "skelvo")
ACTIONS = 500


def timed(command, env, runs):
    samples = []
    for _ in range(runs):
        start = time.perf_counter()
        result = subprocess.run(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        samples.append((time.perf_counter() - start) * 1000.0)
        if result.returncode != 0:
            raise SystemExit(f"{command} failed: {result.stderr.decode()}")
    return statistics.median(samples)


def wait_for(predicate, seconds=15):
    deadline = time.time() + seconds
    while time.time() < deadline:
        if predicate():
            return True
        time.sleep(0.1)
    return False


def skelvo_figures(home):
    env = dict(os.environ, SKELVO_HOME=home, SKELVO_RESOURCES=os.path.join(ROOT, "resources"))
    env.pop("DISPLAY", None)
    app = subprocess.Popen([SKELVO, "--headless"], env=env, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    try:
        ok = lambda: subprocess.run([SK, "status"], env=env, capture_output=True).returncode == 0
        if not wait_for(ok):
            raise SystemExit("skelvo did not start")
        target = os.path.join(home, "target")
        os.makedirs(target)
        for i in range(ACTIONS):
            subprocess.run([SK, "add-action", "Copy Files", "--name", f"Copy {i}",
                            "--options", f"path={target}"], env=env, check=True,
                           stdout=subprocess.DEVNULL)
        listing = subprocess.run([SK, "list", "--json"], env=env, capture_output=True, check=True)
        if listing.stdout.count(b'"type"') != ACTIONS:
            raise SystemExit("the grid does not hold the actions")
        return (timed([SK, "status"], env, 200), timed([SK, "list", "--json"], env, 50))
    finally:
        app.terminate()
        app.wait(10)


def copyq_figures(home):
    copyq = shutil.which("copyq")
    if not copyq:
        return None
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, "config"),
               XDG_DATA_HOME=os.path.join(home, "data"), XDG_RUNTIME_DIR=os.path.join(home, "rt"))
    os.makedirs(env["XDG_RUNTIME_DIR"], mode=0o700)
    xvfb = None
    if shutil.which("Xvfb"):
        display = ":%d" % (90 + os.getpid() % 100)
        xvfb = subprocess.Popen(["Xvfb", display, "-nolisten", "tcp"], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        env["DISPLAY"] = display
        env.pop("WAYLAND_DISPLAY", None)
        time.sleep(1)
    else:
        env["QT_QPA_PLATFORM"] = "offscreen"
    server = subprocess.Popen([copyq], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        ok = lambda: subprocess.run([copyq, "size"], env=env, capture_output=True).returncode == 0
        if not wait_for(ok):
            return "server did not start"
        # Its default history keeps 200 items.
        subprocess.run([copyq, "config", "maxitems", str(ACTIONS * 2)], env=env, capture_output=True)
        added = subprocess.run([copyq, "add"] + [f"item {i}" for i in range(ACTIONS)], env=env,
                               capture_output=True)
        if added.returncode != 0:
            return "could not add items: " + added.stderr.decode().strip()
        listing = ("var a=[]; for (var i=0;i<size();++i) a.push(str(read(i))); "
                   "print(JSON.stringify(a))")
        return (timed([copyq, "size"], env, 200), timed([copyq, "eval", listing], env, 50))
    finally:
        subprocess.run([copyq, "exit"], env=env, capture_output=True)
        try:
            server.wait(10)
        except subprocess.TimeoutExpired:
            server.kill()
        if xvfb:
            xvfb.terminate()


def main():
    # What starting any process costs on this machine: the floor under every client.
    floor = timed(["/bin/true"], dict(os.environ), 200)
    with tempfile.TemporaryDirectory() as skelvo_home, tempfile.TemporaryDirectory() as copyq_home:
        skelvo = skelvo_figures(skelvo_home)
        copyq = copyq_figures(copyq_home)
    print(f"median round trip, ms (grid of {ACTIONS} actions / {ACTIONS} items)")
    print(f"{'':34} {'status':>10} {'list --json':>12}")
    print(f"{'sk (skelvo --headless)':34} {skelvo[0]:10.2f} {skelvo[1]:12.2f}")
    if isinstance(copyq, tuple):
        print(f"{'copyq (size / eval listing)':34} {copyq[0]:10.2f} {copyq[1]:12.2f}")
    else:
        print(f"copyq: not measured ({copyq or 'not installed'})")
    print(f"{'/bin/true (process start floor)':34} {floor:10.2f}")
    print("target: sk status under 5 ms median and faster than the peer")


if __name__ == "__main__":
    main()
