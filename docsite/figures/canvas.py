"""The elements of every drawing: boxes, arrows and lines of text, light or dark like the page."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Literal
from xml.sax.saxutils import escape

type Anchor = Literal["start", "middle", "end"]
type Point = tuple[float, float]

# A page with its own switch sets these variables on .fig itself.
STYLE = """
.fig{--ink:#1f2328;--soft:#57606a;--line:#6e7781;--face:#f6f8fa;--mark:#0b6b88;--tint:#d7ecf3;--warn:#9a4a00}
@media (prefers-color-scheme:dark){.fig{--ink:#e6edf3;--soft:#a3adb8;--line:#8b949e;--face:#21262d;\
--mark:#6cc4df;--tint:#173a47;--warn:#f0a35e}}
.fig text{fill:var(--ink);font-family:system-ui,-apple-system,"Segoe UI",Roboto,"DejaVu Sans",sans-serif}
.fig .code{font-family:ui-monospace,SFMono-Regular,Menlo,"DejaVu Sans Mono",monospace}
.fig .strong{font-weight:600}
.fig .soft{fill:var(--soft)}
.fig .marked{fill:var(--mark)}
.fig .warned{fill:var(--warn)}
.fig .box{fill:var(--face);stroke:var(--line);stroke-width:1.2}
.fig .ours{fill:var(--mark)}
.fig .other{fill:var(--line);opacity:.55}
.fig .now{fill:var(--tint);stroke:var(--mark);stroke-width:1.6}
.fig .line{fill:none;stroke:var(--line);stroke-width:1.3}
.fig .dashed{stroke-dasharray:4 4}
.fig .head{fill:var(--line)}
"""

_HEAD = (
    '<marker id="{name}-head" viewBox="0 0 10 10" refX="9" refY="5" markerWidth="8" markerHeight="8" '
    'markerUnits="userSpaceOnUse" orient="auto"><path class="head" d="M0 0 10 5 0 10z"/></marker>'
)


def _number(value: float) -> str:
    return f"{value:g}"


@dataclass
class Canvas:
    """A drawing of one size. `name` distinguishes its identifiers from those of others on the same page."""

    name: str
    width: float
    title: str
    description: str
    size: float = 12
    height: float = 0
    _parts: list[str] = field(default_factory=list)

    def text(
        self,
        x: float,
        y: float,
        lines: str | Sequence[str],
        *,
        anchor: Anchor = "middle",
        kind: str = "",
        size: float | None = None,
    ) -> None:
        """Lines of text, the first on the baseline `y`."""
        size = size or self.size
        for number, line in enumerate([lines] if isinstance(lines, str) else lines):
            place = f'x="{_number(x)}" y="{_number(y + number * size * 1.25)}"'
            style = f'font-size="{_number(size)}" text-anchor="{anchor}"' + (
                f' class="{kind}"' if kind else ""
            )
            self._parts.append(f"<text {place} {style}>{escape(line)}</text>")

    def box(
        self, x: float, y: float, width: float, height: float, *, kind: str = "box", round: float = 6
    ) -> None:
        place = " ".join(
            f'{key}="{_number(value)}"'
            for key, value in (("x", x), ("y", y), ("width", width), ("height", height), ("rx", round))
        )
        self._parts.append(f'<rect class="{kind}" {place}/>')

    def line(self, points: Sequence[Point], *, arrow: bool = False, dashed: bool = False) -> None:
        """A line through `points`, with a head at its end if it is an arrow."""
        path = "M" + " ".join(f"{_number(x)} {_number(y)}" for x, y in points)
        head = f' marker-end="url(#{self.name}-head)"' if arrow else ""
        self._parts.append(f'<path class="line{" dashed" if dashed else ""}" d="{path}"{head}/>')

    def svg(self) -> str:
        """The drawing as a file; it may also be embedded in a page."""
        width, height = _number(self.width), _number(self.height)
        frame = (
            f'<svg xmlns="http://www.w3.org/2000/svg" class="fig" role="img" '
            f'viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
            f'aria-labelledby="{self.name}-title {self.name}-desc">'
        )
        words = [
            f'<title id="{self.name}-title">{escape(self.title)}</title>',
            f'<desc id="{self.name}-desc">{escape(self.description)}</desc>',
        ]
        style = f"<style>{STYLE}</style>"
        defs = f"<defs>{_HEAD.format(name=self.name)}</defs>"
        return "\n".join([frame, *words, style, defs, *self._parts, "</svg>"]) + "\n"
