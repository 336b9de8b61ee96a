"""Objects that run code of the test's choice when the interpreter asks them something."""

import numpy as np


class Trigger:
    """One-shot: `fire()` runs the action the first time after it was armed."""

    def __init__(self):
        self.action = None
        self.fired = 0

    def fire(self):
        action, self.action = self.action, None
        if action is not None:
            self.fired += 1
            action()


def watched(kind, trigger, *args, **attributes):
    """Make an instance of a watching container."""
    container = np.array(*args).view(kind) if issubclass(kind, np.ndarray) else kind(*args)
    container.trigger = trigger
    for name, value in attributes.items():
        setattr(container, name, value)
    return container


def firing(trigger, **answers):
    """Make an object whose special methods fire before they answer.

    An answer that can be called is asked with the method's own arguments.
    """

    def method(answer):
        def answering(self, *args, **kwargs):
            trigger.fire()
            return answer(*args, **kwargs) if callable(answer) else answer

        return answering

    methods = {name: method(answer) for name, answer in answers.items()}
    # Shown without the address, which would differ between the modules.
    return type("Firing", (), {"__repr__": lambda self: "Firing", **methods})()
