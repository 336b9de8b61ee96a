"""Objects that fire when they are thrown away."""


class Deleted:
    """Fires when it is thrown away."""

    def __init__(self, trigger):
        self.trigger = trigger

    def __del__(self):
        self.trigger.fire()
