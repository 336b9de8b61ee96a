"""Days played on a rotation, with everything that can be observed of them written down."""

from support.frozen import freeze, outcome


class Player:
    """Plays days on one rotation; its log is to be compared with that of another.

    `seen` says what is looked at between days: all attributes in their order, if nothing else.
    Without `frames` the log does not say through whose functions an error came, which a method
    that only calls super() would change.
    """

    def __init__(self, rotation, *, seen=vars, frames=True):
        self.rotation = rotation
        self.seen = seen
        self.frames = frames
        self.log = []

    def act(self, action, *arguments, **keywords):
        """Do something, and note what came of it."""
        ending, result, *frames, warned = outcome(action, *arguments, **keywords)
        self.log.append((ending, result, *(frames if self.frames else ()), warned))

    def call(self, *inputs, context=None):
        """A day through the rotation's call."""
        self.act(self.rotation, *inputs, context=context)

    def compute(self, inputs, masks, combined, buffer, N):
        """A day on masks of one's own, and what it has written."""
        self.act(self.rotation.compute, inputs, masks, combined, buffer, N)
        self.log.append(freeze(buffer))

    def look(self):
        """Note all that is looked at between days."""
        self.log.append(freeze(self.seen(self.rotation)))

    def play(self, steps):
        """Take the steps, each the name of a method and its arguments, and return the log."""
        for name, *arguments in steps:
            getattr(self, name)(*arguments)
        return self.log
