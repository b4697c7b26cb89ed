# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the pictures of a report share: sizes, marks, colours by role, and SVG for a page.

A picture is drawn in colours that each stand for a role; in its SVG the page's variables take their
place, so that one drawing serves light and dark. Texts stay texts, in the page's font.
"""

from __future__ import annotations

import dataclasses
import functools
import io
import warnings
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from typing import TYPE_CHECKING, Any

from bitfold.studies import words
from bitfold.studies.svg import for_page

if TYPE_CHECKING:
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure

SERIES = tuple(f"series-{i}" for i in range(1, 7))
"""Roles of curves and marks; distinct for colour-blind readers."""

HEAT = tuple(f"heat-{i}" for i in range(1, 7))
"""Roles of shares, from the smallest; "heat-0" is that of none."""

_ROLES = ("ink", "muted", "grid", "rail", "surface", *SERIES, "heat-0", *HEAT)
# A colour that no picture has otherwise, for each role.
_COLOURS = {role: f"#0102{index:02x}" for index, role in enumerate(_ROLES)}
_VARIABLES = {value: f"var(--{role})" for role, value in _COLOURS.items()}

MARKS = {
    "circle": ("o", '<circle cx="12" cy="7" r="4"/>'),
    "square": ("s", '<path d="M8 3h8v8h-8z"/>'),
    "up": ("^", '<path d="M12 2.5l4.5 8h-9z"/>'),
    "diamond": ("D", '<path d="M12 2l5 5-5 5-5-5z"/>'),
    "down": ("v", '<path d="M12 11.5l4.5-8h-9z"/>'),
    "cross": ("P", '<path d="M10.5 2.5h3v3h3v3h-3v3h-3v-3h-3v-3h3z"/>'),
    "star": (
        "*",
        '<path d="M12 1l1.6 4.2h4.4l-3.5 2.7 1.3 4.3-3.8-2.6-3.8 2.6 1.3-4.3-3.5-2.7h4.4z"/>',
    ),
    "tick": ("|", '<path d="M12 1v12" fill="none"/>'),
}
"""Marks by name: as they are drawn, and as a key shows them."""

# So that marks in the same place can be told apart: hollow ones show around others.
_MARK_SIZES = {
    ("circle", False): 7.5,
    ("diamond", False): 7.5,
    ("tick", False): 12,
    ("diamond", True): 8.5,
    ("square", True): 11,
}

DASHES = {"solid": "", "dashed": "5 2.5", "dotted": "1.5 2"}


@dataclasses.dataclass(frozen=True)
class Size:
    """How much room a picture has, in units of the page.

    Attributes:
        name: of the size.
        width: of the picture.
        label: of the names of layers, at most.
        row: the height of a layer's row.
        font: of the texts.
    """

    name: str
    width: float
    label: float
    row: float
    font: float


WIDE = Size("wide", 760, 230, 19, 12)
NARROW = Size("narrow", 330, 112, 17, 10.5)


@dataclasses.dataclass(frozen=True)
class KeyEntry:
    """What a mark, a line or a colour of a picture means.

    Attributes:
        text: what it means.
        role: its colour's.
        mark: its name, "" without one; "box" for a colour alone.
        line: its style, "" without one.
        is_hollow: whether the mark is an outline.
    """

    text: str
    role: str
    mark: str = ""
    line: str = ""
    is_hollow: bool = False


@dataclasses.dataclass(frozen=True)
class Picture:
    """A picture in two sizes.

    Attributes:
        wide: SVG.
        narrow: the same for narrow screens.
        key: what its marks mean.
    """

    wide: str
    narrow: str
    key: tuple[KeyEntry, ...]


def colour(role: str) -> str:
    """Return the colour that stands for a role."""
    return _COLOURS[role]


def mark_style(role: str, mark: str, is_hollow: bool = False, size: float = 6) -> dict[str, Any]:
    """Return what `Axes.plot` takes for marks; hollow ones hide what is behind them."""
    face = colour("surface") if is_hollow else colour(role)
    return {
        "color": colour(role),
        "marker": MARKS[mark][0],
        "markersize": size,
        "markerfacecolor": face,
        "markeredgewidth": 2.2 if mark == "tick" else 1.4 if is_hollow else 0.0,
        "markeredgecolor": colour(role),
    }


class Canvas:
    """A figure whose places are given from its upper left corner, in units of the page."""

    def __init__(self, figure: Figure, size: Size, height: float) -> None:
        """Set the figure's size."""
        self.figure, self.size, self.height = figure, size, height
        figure.set_size_inches(size.width / 72, height / 72)

    def axes(self, left: float, top: float, width: float, height: float) -> Axes:
        """Return axes in a rectangle, with grid lines for values and nothing around."""
        place = (
            left / self.size.width,
            1 - (top + height) / self.height,
            width / self.size.width,
            height / self.height,
        )
        axes = self.figure.add_axes(place)
        axes.set_axisbelow(True)
        axes.tick_params(which="both", pad=4, left=False, bottom=False)
        axes.spines[:].set_visible(False)
        return axes

    def text(
        self,
        x: float,
        y: float,
        text: str,
        *,
        role: str = "muted",
        align: str = "left",
        weight: str = "normal",
    ) -> None:
        """Write a line whose middle is at a height."""
        place = x / self.size.width, 1 - y / self.height
        self.figure.text(*place, text, color=colour(role), ha=align, va="center", weight=weight)

    def fitted(self, text: str, width: float) -> str:
        """Return a name, without its middle where it is wider than there is room."""
        return words.elided(words.printable(text), lambda t: text_width(t, self.size.font) <= width)


@functools.lru_cache(4096)
def text_width(text: str, font: float) -> float:
    """Return how wide a text is."""
    from matplotlib.font_manager import FontProperties
    from matplotlib.textpath import text_to_path

    properties = FontProperties(family="DejaVu Sans", size=font)
    return text_to_path.get_text_width_height_descent(text, properties, ismath=False)[0]


def label_width(names: Sequence[str], size: Size) -> float:
    """Return how much room the names of rows take."""
    widest = max((text_width(words.printable(name), size.font) for name in names), default=0)
    return min(widest, size.label)


def draw_rows(canvas: Canvas, axes: Axes, names: Sequence[str], room: float) -> None:
    """Give axes a row for each name, from the top."""
    axes.set_ylim(len(names) - 0.5, -0.5)
    axes.set_yticks(range(len(names)), [canvas.fitted(name, room) for name in names])


def draw_lines(axes: Axes, rows: Sequence[float], columns: Sequence[float], **style: Any) -> None:
    """Draw lines along rows and columns of axes whose limits are set, as one shape."""
    from matplotlib.patches import PathPatch
    from matplotlib.path import Path

    (left, right), (bottom, top) = axes.get_xlim(), axes.get_ylim()
    points = [point for y in rows for point in ((left, y), (right, y))]
    points += [point for x in columns for point in ((x, bottom), (x, top))]
    codes = [Path.MOVETO, Path.LINETO] * (len(points) // 2)
    axes.add_patch(PathPatch(Path(points, codes), fill=False, **style))


def draw_marks(
    axes: Axes, places: Sequence[tuple[float, float]], entry: KeyEntry, zorder: float
) -> None:
    """Draw the marks that a key has an entry for."""
    size = _MARK_SIZES.get((entry.mark, entry.is_hollow), 7)
    style = mark_style(entry.role, entry.mark, entry.is_hollow, size)
    axes.plot(*zip(*places, strict=True), ls="none", zorder=zorder, **style)


def fill_cells(axes: Axes, cells: Sequence[tuple[int, int, int]], role: str) -> None:
    """Fill cells of a grid, given by row, first column and the column behind, as one shape."""
    from matplotlib.patches import PathPatch
    from matplotlib.path import Path

    points = []
    for row, first, end in cells:
        left, right, top, bottom = first - 0.5, end - 0.5, row - 0.5, row + 0.5
        points += [(left, top), (right, top), (right, bottom), (left, bottom), (left, top)]
    codes = [Path.MOVETO, Path.LINETO, Path.LINETO, Path.LINETO, Path.CLOSEPOLY] * len(cells)
    axes.add_patch(PathPatch(Path(points, codes), facecolor=colour(role), linewidth=0))


def whole_ticks(low: int, high: int, most: int) -> list[int]:
    """Return whole numbers of a range at equal distances, the multiples of one that is handy."""
    step = next(s for s in (1, 2, 4, 5, 10, 20, 50, high - low) if (high - low) / s < most)
    return [value for value in range(low, high + 1) if value % step == 0] or [low]


@contextmanager
def _style(key: str, size: Size) -> Iterator[None]:
    """Set matplotlib's own style, whatever the user's is, and ours on it."""
    import matplotlib.style

    ours = {
        "svg.fonttype": "none",
        "svg.hashsalt": key,
        "text.parse_math": False,
        "font.family": "DejaVu Sans",
        "font.size": size.font,
        "axes.labelsize": size.font,
        "axes.titlesize": size.font,
        "xtick.labelsize": size.font,
        "ytick.labelsize": size.font,
        "text.color": colour("ink"),
        "axes.labelcolor": colour("muted"),
        "axes.titlecolor": colour("ink"),
        "xtick.labelcolor": colour("muted"),
        "ytick.labelcolor": colour("ink"),
        "axes.facecolor": "none",
        "figure.facecolor": "none",
    }
    with matplotlib.style.context(ours, after_reset=True), warnings.catch_warnings():
        # The browser has letters that matplotlib's font has not.
        warnings.filterwarnings("ignore", message="Glyph .* missing from font")
        yield


def both_sizes(
    key: str, draw: Callable[[Figure, Size], None], entries: Sequence[KeyEntry]
) -> Picture:
    """Draw a picture in both sizes.

    Args:
        key: what tells this picture's marks from those of others on the page.
        draw: fills an empty figure.
        entries: of its key.
    """
    return Picture(_svg(key, draw, WIDE), _svg(key, draw, NARROW), tuple(entries))


def _svg(key: str, draw: Callable[[Figure, Size], None], size: Size) -> str:
    try:
        from matplotlib.backends.backend_svg import FigureCanvasSVG
        from matplotlib.figure import Figure
    except ImportError:
        raise ImportError(
            "Need matplotlib for the pictures of a report: pip install bitfold[report]"
        ) from None
    key = f"{key}-{size.name}"
    with _style(key, size):
        figure = Figure()
        FigureCanvasSVG(figure)
        draw(figure, size)
        written = io.BytesIO()
        nothing = dict.fromkeys(("Creator", "Date", "Format", "Type"))
        figure.savefig(written, format="svg", metadata=nothing)
    return for_page(written.getvalue(), key, _VARIABLES)
