#!/usr/bin/env python3
"""Times the image engine against vipsthumbnail and ImageMagick on a corpus it makes itself.

  python3 bench/images_bench.py [--build BUILD_DIR] [--runs N] [--keep]

Line 1: 40 JPEGs of 4000x3000 resized to fit 1000x1000 at JPEG quality 85.
Line 2: 10 PNGs of 2000x1500 converted to WEBP (quality 75 for every tool).
Each tool gets fresh copies of the inputs and writes to its own output folder; the best
wall time of N runs is reported with that run's peak resident memory (wait4's maxrss).

The first row of each table is the built-in action run with `sk run` against a running
headless application, which works on a pool of one worker per core (its peak memory is the
application's, start-up included). The engine alone follows, once with that pool and once
one image at a time (`images_bench run --workers 1`), then the peers.

Targets, on two cores: line 1 in at most 0.6 x vipsthumbnail's wall time and at least 4x
faster than mogrify; line 2 in at most 0.6 x the wall time of `vips webpsave` run on each
file; on both lines peak memory no higher than mogrify's. The exit status is 1 when one is
missed.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PEER_PACKAGES = {"vipsthumbnail": "libvips-tools", "vips": "libvips-tools",
                 "mogrify": "imagemagick"}


def ensure_peers():
    missing = sorted({pkg for tool, pkg in PEER_PACKAGES.items() if not shutil.which(tool)})
    if not missing:
        return
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    print(f"installing {' '.join(missing)}", file=sys.stderr)
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", "--no-install-recommends"] + missing,
                   check=True, env=env, stdout=subprocess.DEVNULL)


def measure(command, cwd=None):
    """Wall seconds and peak RSS in MiB of one command (and its children)."""
    start = time.perf_counter()
    proc = subprocess.Popen(command, cwd=cwd, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    stderr = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        raise SystemExit(f"{command[0]} failed ({proc.returncode}): {stderr.strip()}")
    return wall, usage.ru_maxrss / 1024.0


def fresh_copies(sources, folder):
    os.makedirs(folder)
    copies = []
    for source in sources:
        target = os.path.join(folder, os.path.basename(source))
        shutil.copyfile(source, target)
        copies.append(target)
    return copies


def best_of(runs, work, name, sources, make_command):
    best = None
    for run in range(runs):
        base = os.path.join(work, f"{name}-{run}")
        inputs = fresh_copies(sources, os.path.join(base, "in"))
        out = os.path.join(base, "out")
        os.makedirs(out)
        wall, rss = measure(make_command(inputs, out))
        produced = len(os.listdir(out))
        if produced != len(sources):
            raise SystemExit(f"{name}: {produced} outputs for {len(sources)} inputs")
        if best is None or wall < best[0]:
            best = (wall, rss)
        shutil.rmtree(base)
    return best


def through_sk(build, runs, work, name, sources, options, check_outputs=True):
    """`sk run` of a built-in action against a fresh headless application per run: the
    wall time of the run and the application's peak resident memory (VmHWM)."""
    sk = os.path.join(build, "bin", "sk")
    skelvo = os.path.join(build, "bin", "skelvo")
    action = "Resize Images" if "output_width=1000" in options else "Convert Images"
    best = None
    for run in range(runs):
        base = os.path.join(work, f"{name}-{run}")
        inputs = fresh_copies(sources, os.path.join(base, "in"))
        out = os.path.join(base, "out")
        os.makedirs(out)
        env = dict(os.environ, SKELVO_HOME=os.path.join(base, "home"),
                   SKELVO_RESOURCES=os.path.join(ROOT, "resources"))
        env.pop("DISPLAY", None)
        app = subprocess.Popen([skelvo, "--headless"], env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
        try:
            for _ in range(100):
                if subprocess.run([sk, "status"], env=env, capture_output=True).returncode == 0:
                    break
                time.sleep(0.1)
            subprocess.run([sk, "add-action", action, "--options"] + options +
                           ["output_folder_option=2", f"path={out}", "keep_originals=yes"],
                           env=env, check=True, stdout=subprocess.DEVNULL)
            start = time.perf_counter()
            subprocess.run([sk, "run", action] + inputs, env=env, check=True,
                           stdout=subprocess.DEVNULL)
            wall = time.perf_counter() - start
            with open(f"/proc/{app.pid}/status") as status:
                peak = next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))
        finally:
            app.terminate()
            app.wait(10)
        produced = len(os.listdir(out))
        if produced != len(sources):
            raise SystemExit(f"{name}: {produced} outputs for {len(sources)} inputs")
        if best is None or wall < best[0]:
            best = (wall, peak / 1024.0)
        shutil.rmtree(base)
    return best


def report(title, results, engine, checks):
    """Prints a table and its checks: (label, passed, figure) built from the results."""
    print(title)
    for name, (wall, rss) in results.items():
        print(f"  {name:<30} {wall:8.2f} s   peak {rss:8.1f} MiB")
    pool, _ = results["skelvo engine, pool"]
    alone, _ = results["skelvo engine, one at a time"]
    print(f"  info  pool against one at a time: {pool / alone:.2f}x the wall time")
    ok = True
    for label, passed, figure in checks(results[engine]):
        print(f"  {'PASS' if passed else 'MISS'}  {label}: {figure}")
        ok = ok and passed
    return ok


def peer_checks(results, ratio, speed_peer, magick="mogrify", faster_than_magick=None):
    """The targets of one line: wall time against a peer, optionally a speed-up against
    mogrify, and peak memory against mogrify's."""
    pw, _ = results[speed_peer]
    mw, mr = results[magick]

    def checks(engine):
        ew, er = engine
        rows = [(f"wall <= {ratio} x {speed_peer}", ew <= ratio * pw, f"{ew / pw:.2f}x")]
        if faster_than_magick:
            rows.append((f"at least {faster_than_magick}x faster than {magick}",
                         mw >= faster_than_magick * ew, f"{mw / ew:.1f}x faster"))
        rows.append((f"peak memory <= {magick}'s", er <= mr, f"{er:.0f} vs {mr:.0f} MiB"))
        return rows
    return checks


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--keep", action="store_true", help="keep the corpus and outputs")
    args = parser.parse_args()

    engine_bin = os.path.join(args.build, "bin", "images_bench")
    if not os.access(engine_bin, os.X_OK):
        raise SystemExit(f"{engine_bin} missing: cmake --build {args.build} --target images_bench")
    ensure_peers()

    work = tempfile.mkdtemp(prefix="skelvo-images-bench-")
    try:
        corpus = os.path.join(work, "corpus")
        print("making the corpus ...", file=sys.stderr)
        subprocess.run([engine_bin, "corpus", corpus], check=True)
        jpegs = sorted(os.path.join(corpus, "jpg", f) for f in os.listdir(os.path.join(corpus, "jpg")))
        pngs = sorted(os.path.join(corpus, "png", f) for f in os.listdir(os.path.join(corpus, "png")))

        def engine_resize(workers):
            return lambda inputs, out: [
                engine_bin, "run", "--workers", str(workers), "--output", out, "--width", "1000",
                "--height", "1000", "--quality", "85", "--format", "jpg"] + inputs

        def engine_convert(workers):
            return lambda inputs, out: [
                engine_bin, "run", "--workers", str(workers), "--output", out, "--convert",
                "--quality", "75", "--format", "webp"] + inputs

        resize = {
            "skelvo (sk run)": through_sk(args.build, args.runs, work, "sk", jpegs,
                                          ["output_width=1000", "output_height=1000",
                                           "output_quality=85"]),
            "skelvo engine, pool": best_of(args.runs, work, "engine", jpegs, engine_resize(0)),
            "skelvo engine, one at a time": best_of(args.runs, work, "engine-1", jpegs,
                                                    engine_resize(1)),
            "vipsthumbnail": best_of(args.runs, work, "vipsthumbnail", jpegs, lambda i, o: [
                "vipsthumbnail", "--size", "1000x1000", "-o", os.path.join(o, "%s.jpg[Q=85]")] + i),
            "mogrify": best_of(args.runs, work, "mogrify", jpegs, lambda i, o: [
                "mogrify", "-path", o, "-resize", "1000x1000", "-quality", "85"] + i),
        }
        webp_loop = 'for f in "$@"; do b=${f##*/}; vips webpsave "$f" "$0/${b%.*}.webp" --Q 75 || exit 1; done'
        convert = {
            "skelvo (sk run)": through_sk(args.build, args.runs, work, "sk-webp", pngs,
                                          ["output_format=webp", "output_quality=75"]),
            "skelvo engine, pool": best_of(args.runs, work, "engine-webp", pngs,
                                           engine_convert(0)),
            "skelvo engine, one at a time": best_of(args.runs, work, "engine-webp-1", pngs,
                                                    engine_convert(1)),
            "vips webpsave": best_of(args.runs, work, "webpsave", pngs, lambda i, o: [
                "sh", "-c", webp_loop, o] + i),
            "mogrify": best_of(args.runs, work, "mogrify-webp", pngs, lambda i, o: [
                "mogrify", "-path", o, "-format", "webp", "-quality", "75"] + i),
        }
        print(f"cores: {os.cpu_count()}, best of {args.runs} runs, "
              f"load average {os.getloadavg()[0]:.1f} at the end")
        ok = report("40 JPEG 4000x3000 -> fit 1000x1000, JPEG Q85", resize, "skelvo (sk run)",
                    peer_checks(resize, 0.6, "vipsthumbnail", faster_than_magick=4))
        ok = report("10 PNG 2000x1500 -> WEBP Q75", convert, "skelvo (sk run)",
                    peer_checks(convert, 0.6, "vips webpsave")) and ok
        return 0 if ok else 1
    finally:
        if args.keep:
            print(f"kept {work}", file=sys.stderr)
        else:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
