"""What the benchmarks that drive the real application share: its environment, starting it
and running sk with failures turned into StepFailed."""
import os
import subprocess
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class StepFailed(Exception):
    pass


def programs(build):
    """The sk and skelvo programs of a build folder."""
    return os.path.join(build, "bin", "sk"), os.path.join(build, "bin", "skelvo")


def app_environment(home):
    """A Skelvo kept entirely in `home`, with the resources of this checkout."""
    return dict(os.environ, SKELVO_HOME=home, SKELVO_RESOURCES=os.path.join(ROOT, "resources"))


def run_sk(sk, env, arguments):
    """Runs sk; an error exit fails the step."""
    result = subprocess.run([sk, *arguments], env=env, capture_output=True)
    if result.returncode != 0:
        shown = " ".join(arguments[:5]) + (" …" if len(arguments) > 5 else "")
        raise StepFailed(f"`sk {shown}` exited with status {result.returncode}: "
                         f"{result.stderr.decode(errors='replace').strip()}")
    return result


def start_app(skelvo, sk, env, log):
    """Starts `skelvo --headless` and waits until it answers `sk status`."""
    app = subprocess.Popen([skelvo, "--headless"], env=env, stdout=log, stderr=log)
    deadline = time.time() + 20
    while time.time() < deadline:
        if app.poll() is not None:
            raise StepFailed(f"skelvo --headless ended with status {app.returncode}")
        if subprocess.run([sk, "status"], env=env, capture_output=True).returncode == 0:
            return app
        time.sleep(0.1)
    app.terminate()
    raise StepFailed("skelvo --headless did not answer `sk status` within 20 s")
