#!/usr/bin/env python3
"""Times the zip step of SFTP Upload (ZipWriter, through build/bin/zip_bench) against `zip -r`.

  python3 bench/zip_bench.py [--build BUILD_DIR] [--runs N] [--keep]

The corpus is 200 files totalling 300 MB that the script makes itself: mostly compressible
text (logs, source-like lines) and binary-ish records, and a fifth of JPEG-like random data
named .jpg; one 60 MB log makes a single large file part of the mix. Both tools read the
same warm files and write to the same disk; the best wall time of N runs each is reported
with the archive sizes. Target: ZipWriter at most 0.6 times the time of `zip -r` (on two
cores). Both archives are checked with `unzip -tq` afterwards.

Exit status: 0 when the target is met, 1 when it is missed, 2 when a step fails.
The sftp benchmark imports run_zip_benchmark() to print the same line in its report.
"""

import argparse
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TARGET_RATIO = 0.6
TOTAL_BYTES = 300_000_000
FILE_COUNT = 200


class StepFailed(Exception):
    pass


def text_pool(rng, size):
    words = ("request started finished failed retry user session upload file folder "
             "connection timeout bytes server client error warning info debug value "
             "return const auto QString result entry archive").split()
    lines = []
    length = 0
    while length < size:
        line = (f"2024-{rng.randint(1, 12):02d}-{rng.randint(1, 28):02d} "
                f"{rng.randint(0, 23):02d}:{rng.randint(0, 59):02d}:{rng.randint(0, 59):02d}."
                f"{rng.randint(0, 999):03d} [{rng.choice(('INFO', 'WARN', 'DEBUG'))}] "
                + " ".join(rng.choices(words, k=rng.randint(4, 14)))
                + f" id={rng.randint(0, 1 << 20)}\n")
        lines.append(line)
        length += len(line)
    return "".join(lines).encode()[:size]


def record_pool(rng, size):
    out = bytearray()
    counter = 0
    while len(out) < size:
        counter += rng.randint(1, 3)
        out += struct.pack("<IIdHH8s", counter, counter * 16, counter * 0.25 + rng.random(),
                           rng.randint(0, 7), 0xBEEF, b"record\0\0")
    return bytes(out[:size])


def sample(rng, pool, size, block=65536):
    """`size` bytes of 64 KiB slices of `pool` at random places."""
    parts = []
    left = size
    while left > 0:
        n = min(block, left)
        start = rng.randrange(0, len(pool) - n)
        parts.append(pool[start:start + n])
        left -= n
    return b"".join(parts)


def make_corpus(folder):
    """200 files, 300 MB: one 60 MB log, 39 random .jpg, 100 texts, 60 record files."""
    rng = random.Random(1729)
    texts = text_pool(rng, 8 << 20)
    records = record_pool(rng, 8 << 20)
    kinds = ([("logs/huge.log", texts, 60_000_000)]
             + [(f"photos/IMG_{i:04d}.jpg", None, 0) for i in range(39)]
             + [(f"text/part-{i:03d}.txt", texts, 0) for i in range(100)]
             + [(f"data/table-{i:02d}.bin", records, 0) for i in range(60)])
    assert len(kinds) == FILE_COUNT
    # The rest is spread so that photos hold about a fifth of the bytes.
    shares = {"photos": 60_000_000, "text": 110_000_000, "data": 70_000_000}
    counts = {"photos": 39, "text": 100, "data": 60}
    written = 0
    for index, (name, pool, size) in enumerate(kinds):
        group = name.split("/")[0]
        if size == 0:
            mean = shares[group] // counts[group]
            size = int(mean * rng.uniform(0.3, 1.7))
        if index == len(kinds) - 1:
            size = TOTAL_BYTES - written
        path = os.path.join(folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(rng.randbytes(size) if pool is None else sample(rng, pool, size))
        written += size
    if written != TOTAL_BYTES:
        raise StepFailed(f"the corpus came out at {written} bytes")


def timed(command, cwd=None):
    """Wall seconds and CPU seconds (user and system) of one command."""
    start = time.perf_counter()
    proc = subprocess.Popen(command, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    stderr = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    code = os.waitstatus_to_exitcode(status)
    if code != 0:
        raise StepFailed(f"{command[0]} failed ({code}): {stderr.strip()}")
    return wall, usage.ru_utime + usage.ru_stime


def check_archive(archive):
    result = subprocess.run(["unzip", "-tq", archive], capture_output=True)
    if result.returncode != 0:
        raise StepFailed(f"unzip -t rejects {archive}: "
                         f"{result.stdout.decode(errors='replace').strip()[-300:]}")


def run_zip_benchmark(build, runs=3, work=None):
    """Times both tools on a fresh corpus. Returns a dict: "ours" and "peer" as the best
    (wall s, CPU s) of each, "ratio" of the wall times, "sizes" of the two archives."""
    zip_bench = os.path.join(build, "bin", "zip_bench")
    if not os.access(zip_bench, os.X_OK):
        raise StepFailed(f"{zip_bench} is missing; build the zip_bench target")
    if not shutil.which("zip") or not shutil.which("unzip"):
        raise StepFailed("zip and unzip are needed (scripts/setup.sh installs them)")
    own = work is None
    work = work or tempfile.mkdtemp(prefix="zip-bench-")
    try:
        corpus = os.path.join(work, "corpus")
        make_corpus(corpus)
        for folder, _, files in os.walk(corpus):  # warm the page cache for both
            for name in files:
                with open(os.path.join(folder, name), "rb") as f:
                    while f.read(1 << 20):
                        pass
        ours, peer = [], []
        ours_zip = os.path.join(work, "zipwriter.zip")
        peer_zip = os.path.join(work, "zip-r.zip")
        for _ in range(runs):
            for path in (ours_zip, peer_zip):
                if os.path.exists(path):
                    os.remove(path)
            ours.append(timed([zip_bench, ours_zip, corpus]))
            peer.append(timed(["zip", "-r", "-q", peer_zip, "corpus"], cwd=work))
        check_archive(ours_zip)
        check_archive(peer_zip)
        best_ours, best_peer = min(ours), min(peer)
        return {"ours": best_ours, "peer": best_peer, "ratio": best_ours[0] / best_peer[0],
                "sizes": (os.path.getsize(ours_zip), os.path.getsize(peer_zip))}
    finally:
        if own:
            shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--keep", action="store_true", help="keep the corpus and archives")
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix="zip-bench-") if args.keep else None
    load_before = os.getloadavg()[0]
    try:
        figures = run_zip_benchmark(args.build, args.runs, work)
    except StepFailed as failure:
        print(f"zip_bench: {failure}", file=sys.stderr)
        return 2
    print(f"zip of {FILE_COUNT} files, {TOTAL_BYTES / 1e6:.0f} MB, best of {args.runs}, "
          f"{os.cpu_count()} cores, load average {load_before:.1f} before, "
          f"{os.getloadavg()[0]:.1f} after")
    # CPU seconds beside the wall time: on a busy machine the ratio drifts towards the
    # CPU ratio, since the second core is not there to be used.
    print(f"  {'':10} {'wall s':>8} {'CPU s':>8} {'archive MB':>11}")
    for label, (wall, cpu), size in (("ZipWriter", figures["ours"], figures["sizes"][0]),
                                     ("zip -r", figures["peer"], figures["sizes"][1])):
        print(f"  {label:10} {wall:8.2f} {cpu:8.2f} {size / 1e6:11.1f}")
    ratio = figures["ratio"]
    met = ratio <= TARGET_RATIO
    print(f"  ratio {ratio:.2f} (target <= {TARGET_RATIO})  {'PASS' if met else 'FAIL'}")
    if work:
        print(f"  kept in {work}")
    return 0 if met else 1


if __name__ == "__main__":
    sys.exit(main())
