"""Where operations that fail are put down, each with the error that is expected of it."""


# Failures: (expected error, set-up)

FAILURES = {}


def failing(error):
    def register(setup):
        FAILURES[setup.__name__] = (error, setup)
        return setup

    return register


def rejected_arguments(error, make, **arguments):
    """Register one failing construction."""
    shown = ", ".join(f"{name}={value!r:.20}" for name, value in arguments.items())
    FAILURES[f"{make.__name__}({shown})"] = (error, lambda: lambda: make(**arguments))
