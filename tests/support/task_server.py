"""Reads requests from standard input: start a task in a forked child, or wait for one.

The argument is the module whose functions are the tasks. Its `warm_up` is called once, so that the
children, however confined, have nothing left to import.
"""

import importlib
import json
import os
import sys
import traceback


def start(task, arguments):
    process = os.fork()
    if process != 0:
        return process
    status = 1
    try:
        path = arguments.pop("answer", os.devnull)
        # Opened first: the task may give up the right to.
        with open(path, "w") as answer:
            json.dump(task(**arguments), answer)
        status = 0
    except BaseException:
        traceback.print_exc()
    finally:
        os._exit(status)


def wait(process):
    _, status = os.waitpid(process, 0)
    return os.waitstatus_to_exitcode(status)


def main(module):
    tasks = importlib.import_module(module)
    tasks.warm_up()
    for line in sys.stdin:
        request = json.loads(line)
        if request["do"] == "start":
            reply = start(getattr(tasks, request["task"]), request["arguments"])
        else:
            reply = wait(request["process"])
        sys.stdout.write(json.dumps(reply) + "\n")
        sys.stdout.flush()


if __name__ == "__main__":
    main(sys.argv[1])
