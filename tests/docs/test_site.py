"""The parts of the built site: drawings, the reference, includes and the check for foreign files."""

from __future__ import annotations

import json
import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from types import SimpleNamespace

import pytest

from docsite import hooks, pages, reference
from docsite.figures import __main__ as figures
from docsite.figures import bars
from tessaline import auth

from .pages import DOCS, PAGES

pytestmark = pytest.mark.process

SVG = "{http://www.w3.org/2000/svg}"
DRAWINGS = sorted(figures.drawn())


def test_the_drawings_are_as_drawn() -> None:
    assert len(DRAWINGS) == 6 + len(bars.CHARTS)
    assert figures.outdated() == []


@pytest.mark.parametrize("path", DRAWINGS, ids=lambda path: path.stem)
def test_a_drawing_can_be_read_aloud_and_by_day_and_night(path: Path) -> None:
    root = ElementTree.fromstring(path.read_text())
    named = {name: element.text or "" for element in root.iter() if (name := element.get("id"))}
    title, description = (named[name] for name in root.get("aria-labelledby", "").split())
    assert root.get("role") == "img"
    assert title and len(description) > 100
    assert {element.tag.removeprefix(SVG) for element in root.iter()} <= {
        *("svg", "title", "desc", "style", "defs", "marker", "path", "rect", "text")
    }
    assert "prefers-color-scheme:dark" in path.read_text()
    # Another drawing on the same page has its own identifiers.
    assert all(str(name).startswith(f"{path.stem}-") for name in named)


@pytest.mark.parametrize("path", DRAWINGS, ids=lambda path: path.stem)
def test_the_words_of_a_drawing_are_large_enough_on_a_phone(path: Path) -> None:
    root = ElementTree.fromstring(path.read_text())
    width = float(root.get("viewBox", "").split()[2])
    # Where no style says more, such as in the README, it is as wide as it was drawn.
    assert float(root.get("width", "0")) == width
    sizes = [float(text.get("font-size", "0")) for text in root.iter(f"{SVG}text")]
    assert sizes and min(sizes) * min(1, 358 / width) >= 10


def test_every_drawing_is_shown_with_words_in_its_place() -> None:
    text = "".join(page.read_text() for page in [*PAGES, bars.FOLDER / "README.md"])
    shown = re.findall(r"!\[([^\]]+)\]\((?:figures/)?([\w-]+)\.svg\)", text)
    assert {name for _, name in shown} == {path.stem for path in DRAWINGS}


def test_the_reference_has_every_public_name_and_no_other() -> None:
    public = {
        name
        for name, value in vars(auth).items()
        if not name.startswith("_") and getattr(value, "__module__", None) == auth.__name__
    }
    shown = set(re.findall(r"^        - (\w+)$", (DOCS / "reference.md").read_text(), re.MULTILINE))
    stub = (DOCS.parent / "src/tessaline/auth.pyi").read_text()
    for_annotations = set(re.findall(r"^@type_check_only\nclass ([A-Z]\w+)", stub, re.MULTILINE))
    assert shown == public | for_annotations


INTEGRATIONS = [
    f"integrations.{name}" for name in ("aiohttp", "eventlet", "gevent", "grpc", "httpx", "requests")
]


@pytest.mark.parametrize("module", ["aio", "errors", "http", "keeper", "keys", "testing", *INTEGRATIONS])
def test_the_reference_of_the_other_modules_has_all_that_they_export(module: str) -> None:
    text = "".join((DOCS / f"{page}.md").read_text() for page in ("modules", "reference-integrations"))
    section = text.partition(f"\n::: tessaline.{module}\n")[2].partition("\n## ")[0]
    members = re.findall(rf"^(?:        - |::: tessaline\.{module}\.)(\w+)$", section, re.MULTILINE)
    path = DOCS.parent / "src/tessaline" / module.replace(".", "/")
    source = (path / "__init__.py" if path.is_dir() else path.with_suffix(".py")).read_text()
    exported = set(re.findall(r'"(\w+)"', source.partition("\n__all__ = [")[2].partition("]")[0]))
    # The page of errors lists the reasons.
    reasons = set(re.findall(r'^(\w+): Final = "', source, re.MULTILINE)) if module == "errors" else set()
    assert members and set(members) == exported - reasons


def test_the_text_of_a_link_says_where_it_leads() -> None:
    vague = {"act", "below", "explained", "here", "more", "see below", "this", "this page", "this table"}
    found = [
        f"{page.name}: {text}"
        for page in [*PAGES, DOCS.parent / "README.md"]
        for text in re.findall(r"(?<!!)\[([^\]]+)\]\(", page.read_text())
        if text.lower() in vague
    ]
    assert found == []


def test_files_of_the_project_are_included_without_the_links_that_lead_out() -> None:
    included = hooks.with_included("<!-- include CONTRIBUTING.md -->\n", DOCS)
    assert included.startswith("# Contributing")
    text = "[a](../README.md) [b](errors.md) [c](../README.md#x) [d](https://service.example) [e](../none.md)"
    plain = hooks.without_links_out(text, DOCS, DOCS)
    assert plain == "a [b](errors.md) c [d](https://service.example) [e](../none.md)"


def test_a_file_that_is_shown_on_the_page_is_linked_there() -> None:
    text = "[this](../examples/fleet.py) [that](../examples/demo.py)\n\n## fleet.py\n"
    page = SimpleNamespace(file=SimpleNamespace(src_uri="examples.md"))
    shown = hooks.on_page_markdown(text, page=page, config=SimpleNamespace(docs_dir=str(DOCS)))
    assert shown == "[this](#fleetpy) that\n\n## fleet.py\n"


def test_a_program_is_included_as_code() -> None:
    page = hooks.with_included((DOCS / "examples.md").read_text(), DOCS)
    assert "async def lifespan" in page


def test_every_example_to_copy_is_shown() -> None:
    shown = re.findall(
        r"^## (\S+)\n\n<!-- code examples/(\S+) -->$", (DOCS / "examples.md").read_text(), re.M
    )
    assert all(heading == file for heading, file in shown)
    examples = {path.name for path in (DOCS.parent / "examples").glob("*.py")}
    assert {file for _, file in shown} == examples - {"demo.py"}


def test_names_in_a_narrow_table_may_break() -> None:
    codes = ("not_authenticated", "/auth/verify", "AuthError", ".netrc")
    html = "<table>\na_b " + " ".join(f"<code>{code}</code>" for code in codes) + "</table>"
    assert hooks.with_breaks(html) == (
        "<table>\na_b <code>not_<wbr>authenticated</code> <code>/auth<wbr>/verify</code> "
        "<code>Auth<wbr>Error</code> <code>.netrc</code></table>"
    )


def test_a_short_name_in_other_text_does_not_break() -> None:
    long = "<code>tessaline.integrations.gevent.transport</code>"
    html = f"<p><code>get_token()</code> {long}<table>\n<code>KEY</code></table>"
    assert hooks.with_breaks(html) == html.replace("<code>get", '<code class="whole">get')


def test_no_space_is_left_before_a_bracket_of_the_reference() -> None:
    html = "<p>(default:\n <code>None</code>\n)</p>"
    assert hooks.on_page_content(html) == '<p>(default:\n <code class="whole">None</code>)</p>'


def test_code_that_is_shown_as_a_block_is_not_broken() -> None:
    html = "<pre><code>keeper.get_token()\n</code></pre>"
    assert hooks.with_breaks(html) == html


def table(columns: int) -> str:
    cells = "".join(f"<td>{number}</td>\n" for number in range(columns))
    head = "".join(f"<th>h<code>{number}</code></th>\n" for number in range(columns))
    return f"<table>\n<thead>\n<tr>\n{head}</tr>\n</thead>\n<tbody>\n<tr>\n{cells}</tr>\n</tbody>\n</table>"


def test_cells_of_a_wide_table_have_the_header_of_their_column() -> None:
    assert hooks.with_labels(table(3)) == table(3)
    wide = hooks.with_labels(table(4))
    assert re.findall(r'<td data-label="(\w+)">(\d)</td>', wide) == [(f"h{n}", str(n)) for n in range(4)]
    assert wide.startswith('<table data-columns="4">')


@pytest.mark.parametrize(
    ("html", "loads"),
    [
        ('<script src="https://cdn.example/x.js"></script>', ["https://cdn.example/x.js"]),
        ('<link rel="stylesheet" href="//fonts.example/a.css">', ["//fonts.example/a.css"]),
        ("<p style=\"background: url('https://img.example/b')\">", ["https://img.example/b"]),
        ('<a href="https://service.example">a link is the reader\'s choice</a>', []),
        ('<img src="figures/a.png"><script src="assets/b.js"></script>', []),
    ],
)
def test_what_a_page_loads_from_elsewhere_is_found(html: str, loads: list[str]) -> None:
    assert pages.loads_of(html) == loads


def test_a_site_without_pages_or_with_foreign_files_fails(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    assert pages.main(tmp_path) == 1
    (tmp_path / "index.html").write_text("<p>")
    assert pages.main(tmp_path) == 0
    assert capsys.readouterr().out == f"documentation: 1 pages in {tmp_path}\n"
    (tmp_path / "style.css").write_text("@import 'https://fonts.example/a.css';")
    assert pages.main(tmp_path) == 1


def test_the_search_finds_references_by_their_tags(tmp_path: Path) -> None:
    index = tmp_path / "index.json"
    places = reference.sought()
    entries = [{"location": place, "title": name, "text": ""} for name, place in places.items()]
    index.write_text(json.dumps({"docs": [{"location": "index.html"}, *entries]}))
    reference.tag_index(index)
    first, *tagged = json.loads(index.read_text())["docs"]
    assert "tags" not in first
    assert reference.tagged(index) == places
    assert [entry["title"] for entry in tagged if "boost" in entry] == ["Keeper", "Wallet", "Reason"]
    index.write_text(json.dumps({"docs": entries[1:]}))
    with pytest.raises(ValueError, match=entries[0]["title"]):
        reference.tag_index(index)


def test_the_search_finds_the_members_of_a_class_and_of_two_the_first() -> None:
    page = "modules.html#tessaline.keeper."
    locations = [page + name for name in ("Keeper", "Keeper.status", "Wallet", "Wallet.status", "spare.x")]
    found = reference.with_members({"Keeper": page + "Keeper", "Wallet": page + "Wallet"}, locations)
    assert {place.removeprefix(page): name for place, name in found.items()} == {
        "Keeper": "Keeper",
        "Keeper.status": "status",
        "Wallet": "Wallet",
    }
