"""Reads requests from standard input: start a task in a forked child, or wait for one."""

import json
import os
import sys
import tempfile
import traceback

from stores.support import task_functions
from stores.support.samples import durable_store, numbered_state


def import_everything():
    """Use both stores once, so that children, however confined, have nothing left to import."""
    with tempfile.TemporaryDirectory() as folder:
        for kind in ("directory", "sqlite"):
            store = durable_store(kind, folder)
            store.write("rotation", numbered_state(1))
            store.read("rotation")


def start(task, arguments):
    process = os.fork()
    if process != 0:
        return process
    status = 1
    try:
        path = arguments.pop("answer", os.devnull)
        # Opened first: the task may give up the right to.
        with open(path, "w") as answer:
            json.dump(getattr(task_functions, task)(**arguments), answer)
        status = 0
    except BaseException:
        traceback.print_exc()
    finally:
        os._exit(status)


def wait(process):
    _, status = os.waitpid(process, 0)
    return os.waitstatus_to_exitcode(status)


def main():
    import_everything()
    for line in sys.stdin:
        request = json.loads(line)
        if request["do"] == "start":
            reply = start(request["task"], request["arguments"])
        else:
            reply = wait(request["process"])
        sys.stdout.write(json.dumps(reply) + "\n")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
