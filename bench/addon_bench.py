#!/usr/bin/env python3
"""Add-on actions through sk against a real skelvo --headless and an HTTP server on loopback:
the install of a 5 MiB zipped bundle (once downloaded) and the listing of a 1,000-action
manifest, beside `unzip` of the same archive and a plain fetch of the same manifest.

Usage: python3 bench/addon_bench.py BUILD_FOLDER"""
import http.server
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

from benchsupport import ROOT, StepFailed, app_environment, programs, run_sk, start_app

BUILD = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build")
SK, SKELVO = programs(BUILD)
REPOSITORY_SCRIPT = os.path.join(ROOT, "scripts", "make-action-repository")
INSTALL_TARGET_MS = 150
LIST_TARGET_MS = 100
BUNDLE_MIB = 5
MANIFEST_ACTIONS = 1000
RUNS = 5

SCRIPT = """# Skelvo Action Info
# Name: {name}
# Description: Benchmark action {name}
# Handles: Files
# Events: Dragged
# Creator: Benchmarks
# URL: https://example.org
# Version: 1.0
# UniqueID: com.example.bench.{uid}

def dragged(items, variables, helper)
  puts "ran"
end
"""


def write_bundle(folder, name, payload_bytes=0):
    contents = os.path.join(folder, name + ".skbundle")
    os.makedirs(contents)
    with open(os.path.join(contents, "action.rb"), "w") as script:
        script.write(SCRIPT.format(name=name, uid=name.lower().replace(" ", "-")))
    if payload_bytes:
        # Incompressible, so the archive is as large as the bundle.
        with open(os.path.join(contents, "payload.bin"), "wb") as payload:
            payload.write(os.urandom(payload_bytes))


def make_repository(sources, output):
    result = subprocess.run([REPOSITORY_SCRIPT, sources, output], capture_output=True)
    if result.returncode != 0:
        raise StepFailed("make-action-repository failed: " + result.stderr.decode().strip())
    return os.path.join(output, "actions", "skelvo5-actions-zipped")


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


def serve(folder):
    handler = lambda *args: QuietHandler(*args, directory=folder)  # noqa: E731
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server, f"http://127.0.0.1:{server.server_address[1]}"


def timed(command, env=None):
    started = time.perf_counter()
    result = subprocess.run(command, env=env, capture_output=True)
    elapsed = (time.perf_counter() - started) * 1000.0
    if result.returncode != 0:
        raise StepFailed(f"`{' '.join(command[:3])}` exited with status {result.returncode}: "
                         f"{result.stderr.decode(errors='replace').strip()}")
    return elapsed


def install_figures(env, home, archive):
    """The installer alone (sk install-action on the downloaded archive), the whole download
    and install from the server, and unzip of the same archive."""
    installs, downloads, unzips = [], [], []
    for run in range(RUNS):
        installs.append(timed([SK, "install-action", archive], env))
        downloads.append(timed([SK, "install-action", "Big Action", "--force"], env))
        target = os.path.join(home, f"unzip-{run}")
        unzips.append(timed(["unzip", "-q", "-o", archive, "-d", target]))
    return statistics.median(installs), statistics.median(downloads), statistics.median(unzips)


def list_figures(env, url):
    listings = [timed([SK, "list-addon-actions"], env) for _ in range(RUNS)]
    as_json = [timed([SK, "list-addon-actions", "--json"], env) for _ in range(RUNS)]
    fetches = []
    for _ in range(RUNS):
        started = time.perf_counter()
        with urllib.request.urlopen(url + "/actions/skelvo5-actions-zipped/versions.txt") as r:
            r.read()
        fetches.append((time.perf_counter() - started) * 1000.0)
    status = [timed([SK, "status"], env) for _ in range(RUNS)]
    return (statistics.median(listings), statistics.median(as_json), statistics.median(fetches),
            statistics.median(status))


def report(rows):
    print("Add-on actions through sk (skelvo --headless, HTTP server on 127.0.0.1), "
          f"median of {RUNS}")
    print(f"{'':52} {'ms':>10} {'target':>10}  result")
    missed = False
    for name, value, target in rows:
        goal = "" if target is None else f"< {target} ms"
        result = "" if target is None else ("PASS" if value < target else "FAIL")
        missed = missed or result == "FAIL"
        print(f"{name:52} {value:>10.1f} {goal:>10}  {result}")
    return missed


def main():
    for program in (SK, SKELVO, REPOSITORY_SCRIPT):
        if not os.access(program, os.X_OK):
            print(f"addon_bench: {program} is missing; build sk and skelvo first", file=sys.stderr)
            return 2
    with tempfile.TemporaryDirectory() as work:
        sources = os.path.join(work, "sources")
        os.makedirs(sources)
        write_bundle(sources, "Big Action", BUNDLE_MIB << 20)
        for index in range(MANIFEST_ACTIONS - 1):
            write_bundle(sources, f"Action {index:04d}")
        actions = make_repository(sources, os.path.join(work, "www"))
        archive = os.path.join(actions, "Big Action.skbundle")
        server, url = serve(os.path.join(work, "www"))
        home = os.path.join(work, "home")
        os.makedirs(home)
        env = app_environment(home)
        env.pop("DISPLAY", None)
        env.pop("WAYLAND_DISPLAY", None)
        app = None
        with open(os.path.join(work, "skelvo.log"), "wb") as log:
            try:
                app = start_app(SKELVO, SK, env, log)
                run_sk(SK, env, ["settings", "set", "ActionServerURL", url])
                install, download, unzip = install_figures(env, work, archive)
                listing, listing_json, fetch, status = list_figures(env, url)
            except StepFailed as error:
                print(f"addon_bench: step failed: {error}", file=sys.stderr)
                return 2
            finally:
                if app is not None and app.poll() is None:
                    app.terminate()
                    app.wait(10)
                server.shutdown()
    missed = report([
        ("sk status (round-trip floor)", status, None),
        (f"install a {BUNDLE_MIB} MiB zipped bundle (after download)", install, INSTALL_TARGET_MS),
        ("  beside it: unzip -q of the same archive", unzip, None),
        ("download and install it from the server", download, None),
        (f"sk list-addon-actions, {MANIFEST_ACTIONS} actions", listing, LIST_TARGET_MS),
        (f"sk list-addon-actions --json, {MANIFEST_ACTIONS} actions", listing_json,
         LIST_TARGET_MS),
        ("  beside it: fetching versions.txt (urllib)", fetch, None),
    ])
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
