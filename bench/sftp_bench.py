#!/usr/bin/env python3
"""SFTP Upload against OpenSSH's own clients, on a loopback sshd started for the run.

Starts /usr/sbin/sshd on a free loopback port with its own host key and an authorised key,
and `skelvo --headless` in a temporary SKELVO_HOME with an "SFTP Upload" action using that
key. Times, as wall time:
  (a) one file of 512 MiB: the action through `sk run`, `sftp -b` and `scp`;
  (b) 1,000 files of 4 KiB: the same three;
each the best of three interleaved rounds,
and runs bench/zip_bench.py for the zip step when it is there.

    python3 bench/sftp_bench.py [BUILD_DIR] [--size-mib N]

Exit status: 0 when the action moves the large file at least 1.25 times as fast as `sftp`,
1 when it does not, 2 when a step fails (an upload errs or the server's copy differs).
"""
import filecmp
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

from benchsupport import ROOT, StepFailed, app_environment, programs, run_sk, start_app

ARGS = [a for a in sys.argv[1:] if not a.startswith("--")]
BUILD = os.path.abspath(ARGS[0] if ARGS else os.path.join(ROOT, "build"))
SIZE_MIB = int(sys.argv[sys.argv.index("--size-mib") + 1]) if "--size-mib" in sys.argv else 512
SK, SKELVO = programs(BUILD)
SMALL_FILES = 1000
TARGET_RATIO = 1.25
ROUNDS = 3


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_sshd(folder):
    for name in ("host_key", "client_key"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f",
                        os.path.join(folder, name)], check=True)
    if os.geteuid() == 0:
        os.makedirs("/run/sshd", exist_ok=True)
    port = free_port()
    config = os.path.join(folder, "sshd_config")
    with open(config, "w") as f:
        f.write(f"Port {port}\nListenAddress 127.0.0.1\nHostKey {folder}/host_key\n"
                f"AuthorizedKeysFile {folder}/client_key.pub\nStrictModes no\nUsePAM no\n"
                "PidFile none\nPermitRootLogin prohibit-password\nPasswordAuthentication no\n"
                "Subsystem sftp internal-sftp\n")
    sshd = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", config],
                            stderr=subprocess.PIPE, text=True)
    for line in sshd.stderr:
        if "Server listening" in line:
            return sshd, port
    raise StepFailed("sshd did not start")


def timed(command, **options):
    start = time.perf_counter()
    result = subprocess.run(command, capture_output=True, **options)
    if result.returncode != 0:
        raise StepFailed(f"{command[0]} exited with {result.returncode}: "
                         f"{result.stderr.decode(errors='replace').strip()[:300]}")
    return time.perf_counter() - start


def main():
    work = tempfile.mkdtemp(prefix="sftp-bench-")
    sshd = app = None
    try:
        sshd, port = start_sshd(work)
        key = os.path.join(work, "client_key")
        user = os.environ.get("USER") or __import__("pwd").getpwuid(os.geteuid()).pw_name
        ssh_options = ["-i", key, "-o", "StrictHostKeyChecking=no",
                       "-o", f"UserKnownHostsFile={work}/openssh_known_hosts", "-o", "BatchMode=yes"]
        env = app_environment(os.path.join(work, "home"))
        log = open(os.path.join(work, "skelvo.log"), "w")
        app = start_app(SKELVO, SK, env, log)

        big = os.path.join(work, "big.bin")
        with open(big, "wb") as f:
            block = os.urandom(1 << 20)
            for _ in range(SIZE_MIB):
                f.write(block)
        small = os.path.join(work, "small")
        os.makedirs(small)
        for i in range(SMALL_FILES):
            with open(os.path.join(small, f"f{i:04}.bin"), "wb") as f:
                f.write(os.urandom(4096))
        smalls = sorted(os.path.join(small, n) for n in os.listdir(small))

        targets = {}
        for tool in ("skelvo", "sftp", "scp"):
            targets[tool] = os.path.join(work, "remote", tool)
            os.makedirs(targets[tool])
        run_sk(SK, env, ["add-action", "SFTP Upload", "--name", "Bench", "--options",
                         "server=127.0.0.1", f"port={port}", f"username={user}", f"path={key}",
                         f"path_secondary={key}.pub", f"remote_path={targets['skelvo']}"])

        figures = {}
        for label, files in (("large", [big]), ("small", smalls)):
            batch = os.path.join(work, "batch")
            with open(batch, "w") as f:
                source = big if label == "large" else os.path.join(small, "*")
                f.write(f"put {source} {targets['sftp']}/\n")
            commands = {
                "skelvo": [SK, "run", "Bench", *files],
                "sftp": ["sftp", "-q", "-b", batch, "-P", str(port), *ssh_options,
                         f"{user}@127.0.0.1"],
                "scp": ["scp", "-q", "-P", str(port), *ssh_options, *files,
                        f"{user}@127.0.0.1:{targets['scp']}/"],
            }
            # Interleaved rounds, best of each: the other load on the machine hits all three.
            for _ in range(ROUNDS):
                for tool, command in commands.items():
                    # Each run starts from an empty folder and a flushed disk cache.
                    shutil.rmtree(targets[tool])
                    os.makedirs(targets[tool])
                    os.sync()
                    took = timed(command, env=env)
                    figures[(label, tool)] = min(took, figures.get((label, tool), took))
                    for path in files[:: max(1, len(files) // 10)]:
                        copy = os.path.join(targets[tool], os.path.basename(path))
                        if not filecmp.cmp(path, copy, shallow=False):
                            raise StepFailed(f"{tool} left a different {copy}")

        size = SIZE_MIB * (1 << 20)
        print(f"{'':28}{'skelvo':>10}{'sftp':>10}{'scp':>10}")
        print(f"{f'one file of {SIZE_MIB} MiB (MB/s)':28}" +
              "".join(f"{size / figures[('large', t)] / 1e6:10.1f}"
                      for t in ("skelvo", "sftp", "scp")))
        print(f"{f'{SMALL_FILES} files of 4 KiB (s)':28}" +
              "".join(f"{figures[('small', t)]:10.2f}" for t in ("skelvo", "sftp", "scp")))
        ratio = figures[("large", "sftp")] / figures[("large", "skelvo")]
        print(f"large file: {ratio:.2f} x the throughput of sftp (target {TARGET_RATIO})")

        zip_bench = os.path.join(ROOT, "bench", "zip_bench.py")
        if os.path.exists(zip_bench):
            print("\nzip step (bench/zip_bench.py):", flush=True)
            subprocess.run([sys.executable, zip_bench, "--build", BUILD])
        else:
            print("\nzip step: bench/zip_bench.py is not in this checkout")
        return 0 if ratio >= TARGET_RATIO else 1
    except StepFailed as failure:
        print(f"step failed: {failure}", file=sys.stderr)
        return 2
    finally:
        if app:
            app.terminate()
            app.wait()
        if sshd:
            sshd.terminate()
            sshd.wait()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
