"""Runs one Python action for runner.rb.

runner.rb parses the task description and starts this file with the
interpreter in PYTHON_PATH:

    python -B -X utf8 skelvo_runner.py --task-fd FD

FD is an open file holding the task as JSON: {"action", "event", "script",
"variables", "items"}. Standard input (the acknowledgements) and output are
passed through unchanged, so the helper speaks the protocol exactly as the Ruby
one does.

Exit status: 0 when the action returned, 1 when it raised (the traceback is on
standard error), 2 when the action could not be run at all.
"""

import importlib.machinery
import importlib.util
import json
import os
import sys
import traceback

import skelvo_helper

EVENTS = ("dragged", "clicked", "test_connection", "authorize")
EXIT_ACTION_FAILED = 1
EXIT_CANNOT_RUN = 2


class CannotRun(Exception):
    """A problem that keeps the action from running at all."""


def read_task(argv):
    if len(argv) != 2 or argv[0] != "--task-fd":
        raise CannotRun("Usage: skelvo_runner.py --task-fd FD (started by runner.rb)")
    try:
        with os.fdopen(int(argv[1]), "r", encoding="utf-8") as handoff:
            task = json.load(handoff)
    except (OSError, ValueError) as error:
        raise CannotRun(f"Cannot read the task handed over by runner.rb ({error})") from None
    for key in ("event", "script", "variables", "items"):
        if key not in task:
            raise CannotRun(f"The task handed over by runner.rb has no {key}")
    return task


def load_action(script):
    loader = importlib.machinery.SourceFileLoader("action", script)
    spec = importlib.util.spec_from_file_location("action", script, loader=loader)
    module = importlib.util.module_from_spec(spec)
    sys.modules["action"] = module
    loader.exec_module(module)
    return module


def run(argv, helper):
    task = read_task(argv)
    event = task["event"]
    if event not in EVENTS:
        raise CannotRun(f'Unknown event "{event}" in the task description')
    script = os.path.abspath(task["script"])
    # The action's own modules sit beside it.
    sys.path.insert(0, os.path.dirname(script))
    sys.argv = [script]

    try:
        module = load_action(script)
    except Exception:
        traceback.print_exc()
        return EXIT_ACTION_FAILED

    handler = getattr(module, event, None)
    if not callable(handler):
        if event == "dragged":
            signature = f"{event}(items, variables, helper)"
        else:
            signature = f"{event}(variables, helper)"
        raise CannotRun(f'The action {script} has no handler for the event "{event}"; define {signature}')

    variables = task["variables"]
    arguments = (task["items"], variables, helper) if event == "dragged" else (variables, helper)
    try:
        handler(*arguments)
    except Exception:
        traceback.print_exc()
        return EXIT_ACTION_FAILED
    return 0


def private_acknowledgements():
    """Moves the acknowledgements off descriptor 0, so that neither the action nor a
    program it starts reads them: a copy that is not inherited, and /dev/null on 0."""
    acknowledgements = os.dup(0)
    null = os.open(os.devnull, os.O_RDONLY)
    os.dup2(null, 0)
    os.close(null)
    return acknowledgements


def main(argv):
    channel = skelvo_helper.Channel(input_fd=private_acknowledgements())
    sys.stdout = channel.stdout
    sys.stderr = channel.stderr
    sys.stdin = open(os.devnull, encoding="utf-8")
    try:
        status = run(argv, skelvo_helper.Helper(channel))
    except CannotRun as problem:
        print(problem, file=sys.stderr)
        status = EXIT_CANNOT_RUN
    finally:
        channel.flush_streams()
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
