"""What replays say."""


def error_of(outcome, status):
    """The one line of an error; anything else said, or another status, fails the test."""
    assert outcome.status == status, outcome.err
    assert outcome.out == ""
    start, *rest = outcome.err.splitlines()
    assert rest == []
    assert start.startswith("quorvane replay: error: ")
    return start.removeprefix("quorvane replay: error: ")
