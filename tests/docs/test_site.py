"""The built site: no warning, every link inside leads somewhere, signatures are there."""

import inspect
import re
import zlib
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote

import pytest

import quorvane as qv
import quorvane.stores
from docs.pages import pages, thing_called


class Page(HTMLParser):
    """What a page links to and loads, its ids, and the text of each entry of the reference."""

    def __init__(self, path):
        super().__init__()
        self.links, self.loaded, self.ids, self.entries = [], [], set(), {}
        self._open = None
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        self.ids.add(given.get("id"))
        if tag == "a" and "href" in given:
            self.links.append(given["href"])
        elif tag in ("link", "script", "img", "iframe", "source"):
            self.loaded += [given[name] for name in ("href", "src") if name in given]
        if tag == "dt" and "id" in given:
            self._open = given["id"]
            self.entries[self._open] = ""

    def handle_endtag(self, tag):
        if tag == "dt":
            self._open = None

    def handle_data(self, data):
        if self._open is not None:
            self.entries[self._open] += data


@pytest.fixture(scope="module")
def built(site):
    """Each built page by its path in the site."""
    return {
        path.relative_to(site.folder).as_posix(): Page(path)
        for path in sorted(site.folder.rglob("*.html"))
        if "_static" not in path.parts
    }


@pytest.fixture(scope="module")
def inventory(site):
    """The names that have an entry, with the address of each."""
    data = (site.folder / "objects.inv").read_bytes()
    lines = zlib.decompress(data.split(b"\n", 4)[4]).decode().splitlines()
    rows = [re.match(r"(.+?) (\w+:\S+) (-?\d+) (\S*) (.*)", line).groups() for line in lines]
    return {name: address.replace("$", name) for name, role, _, address, _ in rows if "py:" in role}


def test_the_site_is_built_without_a_warning(site):
    assert (site.said.strip(), site.status) == ("", 0)


def test_every_page_is_there(built):
    from_markdown = {
        page.removeprefix("docs/").replace(".md", ".html")
        for page in pages()
        if page.startswith("docs/")
    }
    # These two show a file of the root, which not every copy has.
    from_markdown -= {"contributing.html", "changelog.html"}
    assert from_markdown <= built.keys()
    assert sum(page.startswith("examples/plot_") for page in built) >= 8


def test_every_link_inside_leads_somewhere(site, built):
    wrong, links = [], 0
    for name, page in built.items():
        for link in {*page.links, *page.loaded}:
            if re.match(r"[a-z]+:", link):
                continue
            links += 1
            path, _, anchor = link.partition("#")
            target = (site.folder / name).parent / unquote(path.partition("?")[0])
            target = target.resolve() if path else site.folder / name
            file = target.relative_to(site.folder.resolve() if path else site.folder).as_posix()
            if not target.is_file() or (
                anchor and file in built and unquote(anchor) not in built[file].ids
            ):
                wrong.append(f"{name}: {link}")
    assert wrong == []
    assert links > 1000


def test_nothing_is_loaded_from_outside(built):
    loaded = {each for page in built.values() for each in page.loaded}
    assert [each for each in loaded if re.match(r"([a-z]+:)?//", each)] == []


def members():
    """Each public class with the names of what it says and does."""
    classes = [qv.Baskets, qv.Evaluation, qv.VirtualizationBase, qv.StructureColumns, qv.OwnState]
    classes += [qv.FixedBaskets, qv.PlannedBaskets, qv.SqliteStore, qv.PostgresStore]
    classes += [qv.DirectoryStore, qv.MemoryStore, quorvane.stores.StoreTransaction]
    for each in classes:
        for name in dir(each):
            inherited = not any(name in vars(one) for one in each.__mro__[:-1])
            fields = getattr(each, "__dataclass_fields__", {})
            if not name.startswith("_") and not inherited and name not in fields:
                yield each, name


def test_every_member_of_a_class_has_an_entry(inventory):
    missing = []
    for each, name in members():
        paths = [
            f"quorvane.{module}{one.__name__}.{name}"
            for one in each.__mro__
            for module in ("", "stores.", "functions.rotations.virtualization.planned.")
        ]
        # How many inputs there are is a number of the class, which no call reads.
        if name != "arity" and not any(path in inventory for path in paths):
            missing.append(f"{each.__name__}.{name}")
    assert missing == []


def test_compiled_methods_show_their_parameters(built, inventory):
    shown = 0
    for name, address in inventory.items():
        page, _, place = address.partition("#")
        thing = thing_called(name)
        # Sphinx takes a method of an unknown type for an attribute, unless it is told.
        if place != name or type(thing).__name__ != "native_function":
            continue
        entry = built[page].entries[name]
        expected = [each for each in inspect.signature(thing).parameters if each != "self"]
        assert "(" in entry, name
        assert [each for each in expected if not re.search(rf"\b{each}\b", entry)] == [], name
        shown += 1
    assert shown > 25
    entry = built["reference/own_structures.html"].entries["quorvane.VirtualizationBase.compute"]
    assert re.sub(r"\s", "", entry).startswith(
        "compute(args,nan_masks,combined_nan_mask,output_buf,N"
    )


def test_formulas_are_drawn_by_the_browser_alone(site):
    text = Path(site.folder, "reference/catalogue.html").read_text(encoding="utf-8")
    assert text.count('<math xmlns="http://www.w3.org/1998/Math/MathML" display="block">') >= 19
    assert "mathjax" not in text.lower()


def test_llms_txt_tells_of_every_page(site, built):
    text = (site.folder / "llms.txt").read_text(encoding="utf-8")
    assert re.match(r"# quorvane\n\n> quorvane turns .+\.\n\n## ", text)
    links = re.findall(r"^- \[(.+)\]\((\S+)\): (.+)$", text, re.M)
    lines = [line for line in text.splitlines() if line.startswith("-")]
    assert len(links) == len(lines)
    without = {"index.html", "genindex.html", "search.html", "py-modindex.html"}
    assert sorted(address for _, address, _ in links) == sorted(built.keys() - without)
    assert [said for _, _, said in links if not 20 <= len(said) <= 300] == []
    assert {line for line in text.splitlines() if line.startswith("#")} >= {
        "# quorvane",
        "## Reference",
        "## Gallery",
        "## Developing",
    }
