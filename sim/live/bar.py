"""A measured line against its ranges: one row of styled text.

    short ├closed──◆──┤├open──────────┤├cut────┤

Each range is drawn from its lower to its upper limit; where ranges overlap, the later one counts,
as it does for the daemon. The mark is the present level.
"""

MARK = "◆"


def bar(ranges, level, width):
    """Fragments (style, text) of a bar; ranges are (state, lower, upper)."""
    if not ranges or width < 2:
        return []
    top = max(upper for _, _, upper in ranges)
    cells = [("class:bar", " ")] * width
    for state, lower, upper in ranges:
        first, last = column(lower, top, width), column(upper, top, width)
        for at, sign in enumerate(segment(state, last - first + 1), first):
            cells[at] = (f"class:bar.{state}", sign)
    cells[column(min(level, top), top, width)] = ("class:bar.mark", MARK)
    return merged(cells)


def column(level, top, width):
    return level * (width - 1) // max(top, 1)


def segment(name, width):
    """A range as exactly that many characters."""
    if width < len(name) + 2:
        return name[:width].ljust(width, "─")
    return f"├{name.ljust(width - 2, '─')}┤"


def merged(cells):
    """Neighbours of one style as one fragment."""
    fragments = []
    for style, text in cells:
        if fragments and fragments[-1][0] == style:
            fragments[-1] = (style, fragments[-1][1] + text)
        else:
            fragments.append((style, text))
    return fragments
