"""What a comparison writes: a table in Markdown, bars in SVG."""
import html

OWN_COLOR = "#d62728"
COLORS = {"GStreamer": "#1f77b4", "Asio": "#2ca02c", "oneTBB": "#9467bd", "GLib": "#8c564b", "ffmpeg": "#2ca02c",
          "cmp": "#8c564b", "xargs -P2 ffmpeg": "#2ca02c", "Fluster": "#9467bd"}  # floors and the like are grey


def number(value, unit):
    if unit == "ns" and value >= 1e4:
        return number(value / 1e3, "us") if value < 1e7 else number(value / 1e6, "ms")
    return (f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}") + f" {unit}".rstrip()


def spread(series, unit):
    least, most = (number(series[end], unit) for end in ("min", "max"))
    return number(series["median"], unit) + (f" ({least} to {most})" if len(series["rounds"]) > 1 else "")


def limit(check):
    if check["limit"] is None:
        return ""
    return f"{'at least' if check['kind'] == 'times' else 'at most'} {check['limit']:g}"


def ratio(check):
    return "" if check["kind"] == "is" else f"{check['ratio']:.2f} times as {'fast' if check['kind'] == 'times' else 'much'}"


def markdown(rows, own):
    """The table; the best of a row's peers comes first. `own`: the program that the rows are about."""
    lines = [("work", own, "peer", "ratio", "target", "met")]
    for row in rows:
        series, unit = row["series"], row["unit"]
        first = next(iter(series))
        name = row["title"] + row["note"] + ("" if first == own else f": {first}")
        cells = [name, spread(series[first], unit)]
        for check in sorted(row["checks"], key=lambda check: series[check["against"]]["median"] if check["against"] else 0):
            peer = check["against"] or ""
            lines.append((*cells, peer and f"{peer}: {spread(series[peer], unit)}", ratio(check), limit(check),
                          {None: "", True: "met", False: "**missed**"}[check["met"]]))
            cells = ["", ""]
    widths = [max(len(line[i]) for line in lines) for i in range(6)]
    lines.insert(1, tuple("-" * width for width in widths))
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |" for line in lines)


def svg(rows, rounds):
    """One group of bars per row, in two columns; each group has a scale of its own."""
    bar, name_width, length, column = 13, 130, 230, 620
    shown = [row for row in rows if row["bars"]]
    heights = [bar * len(row["series"]) + 28 for row in shown]
    parts, x, y, bottom = [], 10, 40, 40
    def text(at_x, at_y, what, extra=""):
        parts.append(f'<text x="{at_x:.0f}" y="{at_y:.0f}" {extra}>{html.escape(what)}</text>')
    for row, height in zip(shown, heights):
        if x == 10 and y - 40 >= sum(heights) / 2:
            x, y = 10 + column, 40
        text(x, y + 10, row["title"], 'font-weight="bold"')
        # A stray round may leave the picture.
        most = 1.3 * max(series["median"] for series in row["series"].values())
        scale = length / most
        checks = {check["against"]: check for check in row["checks"]}
        for i, (label, series) in enumerate(row["series"].items()):
            top, check = y + 15 + i * bar, checks.get(label)
            color = COLORS.get(label, OWN_COLOR if i == 0 else "#999999")
            text(x + name_width - 5, top + 10, label, 'text-anchor="end"')
            parts.append(f'<rect x="{x + name_width}" y="{top}" width="{series["median"] * scale:.1f}" '
                         f'height="{bar - 2}" fill="{color}"/>')
            parts.append(f'<path d="M{x + name_width + series["min"] * scale:.1f} {top + bar / 2 - 1:.1f}'
                         f'h{(min(series["max"], most) - series["min"]) * scale:.1f}" stroke="black"/>')
            note = number(series["median"], row["unit"]) + (f", {ratio(check)}" if check else "")
            tone = {None: "black", True: "#070", False: "#b00"}[check and check["met"]]
            if tone != "black":
                note += f" ({limit(check)})"
            text(x + name_width + length + 6, top + 10, note, f'fill="{tone}"')
        y += height
        bottom = max(bottom, y)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{2 * column + 10}" height="{bottom}" '
            f'font-family="sans-serif" font-size="10.5"><rect width="100%" height="100%" fill="white"/>'
            f'<text x="10" y="22" font-size="15">libvxbase and vxrun beside their peers: medians of {rounds} interleaved rounds, '
            f'lines from least to most; shorter is better; '
            f'green: target met, red: missed</text>' + "".join(parts) + "</svg>\n")
