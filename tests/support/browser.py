"""A page in a real browser: what it loads, what it complains of, and how it looks."""

import json
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

import pytest

NAMES = ("chromium", "chromium-browser", "google-chrome")
CONSOLE = re.compile(r":CONSOLE[:(]\d+[\])] \"(.*)\", source: ")


def find_browser():
    """The path of Chromium; skips the test where there is none."""
    found = next(filter(None, map(shutil.which, NAMES)), None)
    if found is None:
        pytest.skip("no Chromium here: pages are looked at in none (apt install chromium)")
    return found


@dataclass(frozen=True)
class Visit:
    """What came of opening a page.

    `requests` are the addresses asked for besides files, `complaints` the lines of the console,
    `document` the page as it stood then, `width` and `height` those of `picture`.
    """

    requests: list[str]
    complaints: list[str]
    document: str
    picture: Path


def visit(page, folder, width=1280, height=2000):
    """Open a file in Chromium without a window."""
    folder.mkdir(exist_ok=True)
    arguments = [
        find_browser(),
        "--headless",
        # The system's own sandbox is not to be had for root.
        "--no-sandbox",
        "--disable-gpu",
        # Containers have little of that memory.
        "--disable-dev-shm-usage",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--no-first-run",
        "--hide-scrollbars",
        "--allow-file-access-from-files",
        "--enable-logging=stderr",
        f"--user-data-dir={folder / 'profile'}",
        f"--log-net-log={folder / 'net.json'}",
        f"--screenshot={folder / 'picture.png'}",
        f"--window-size={width},{height}",
        "--dump-dom",
        page.as_uri(),
    ]
    run = subprocess.run(arguments, capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    return Visit(
        requests=_requests(folder / "net.json"),
        complaints=CONSOLE.findall(run.stderr),
        document=run.stdout,
        picture=folder / "picture.png",
    )


def _requests(log):
    events = [event.get("params", {}) for event in json.loads(log.read_text())["events"]]
    asked = {
        event["url"]
        for event in events
        # The browser's own, for updates and the time, come from no page.
        if "url" in event and event.get("initiator", "not an origin") != "not an origin"
    }
    return sorted(url for url in asked if not url.startswith(("file:", "data:")))
