"""Cutting the power at every point of a recording, and recovering from what may be left."""

import hashlib
import shutil
from dataclasses import dataclass, field
from random import Random

from powercut.calls import Kind
from powercut.images import choices
from powercut.recording import lay_out


@dataclass
class Findings:
    """How many points and images were tried, and what was wrong with which."""

    points: int = 0
    tried: int = 0
    distinct: int = 0
    faults: list[str] = field(default_factory=list)

    def add(self, other):
        """Count what another search tried and found."""
        self.points += other.points
        self.tried += other.tried
        self.distinct += other.distinct
        self.faults += other.faults

    def __str__(self):
        return f"{self.points} points, {self.tried} images, {self.distinct} distinct"


def explore(recording, work, recover, allowed, *, points, images, seed=1):
    """Recover from images of the disk as a power cut may leave it.

    Parameters
    ----------
    recording : Recording
        What the writer did.
    work : Path
        A folder for the images.
    recover : callable
        Takes the folder of an image and returns what it recovers to, or raises.
    allowed : callable
        Takes how often the writer has spoken and an outcome; tells whether it may be.
    points : int or None
        About how many points; None for all.
    images : int
        How many images of each kind at a point; see `choices`.
    """
    random = Random(seed)
    findings = Findings()
    outcomes = {}
    chosen = _points(recording, random, points)
    disk, said = recording.disk(), 0
    for number, call in enumerate(recording.calls):
        disk.play(call)
        said += call.kind is Kind.SAY
        if number not in chosen:
            continue
        findings.points += 1
        for changes in choices(disk.pending, random, images):
            image = disk.image(changes)
            findings.tried += 1
            digest = _digest(image)
            if digest not in outcomes:
                outcomes[digest] = outcome_of(image, work, recover)
            if not allowed(said, outcomes[digest]):
                findings.faults.append(f"call {number}, said {said}: {outcomes[digest]}")
    findings.distinct = len(outcomes)
    return findings


def some_images(recording, count, seed=1):
    """Images of random points, one of each."""
    random = Random(seed)
    chosen = sorted(random.sample(sorted(_points(recording, random, None)), count))
    disk = recording.disk()
    for number, call in enumerate(recording.calls):
        disk.play(call)
        if number in chosen:
            yield disk.image(random.choice(list(choices(disk.pending, random, 10))))


def _points(recording, random, most):
    """The calls after which the power is cut; in a sample, always after what was said."""
    disk = recording.disk()
    candidates = [
        number
        for number, call in enumerate(recording.calls)
        if disk.play(call) or call.kind is Kind.SAY
    ]
    if most is None or len(candidates) <= most:
        return set(candidates)
    said = [number for number in candidates if recording.calls[number].kind is Kind.SAY]
    return {*said, *random.sample(candidates, most)}


def outcome_of(image, work, recover):
    """What recovering from an image gives, or the text of what it raises."""
    folder = work / "image"
    shutil.rmtree(folder, ignore_errors=True)
    lay_out(image, folder)
    try:
        return recover(folder)
    except Exception as error:
        return f"{type(error).__name__}: {error}"


def _digest(image):
    summary = hashlib.blake2b()
    for path, content in sorted(image.items()):
        data = b"" if content is None else content
        summary.update(f"{path}\0{content is None}{len(data)}\0".encode())
        summary.update(data)
    return summary.digest()
