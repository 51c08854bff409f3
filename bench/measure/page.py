"""A page of plots of one run: one file that needs no other, and no network."""
import html

from . import results, services

WIDTH, LABEL, BAR, GAP = 900, 250, 18, 6
COLOURS = {
    "bus floor": "#7f9fb8",
    "HTTPS floor": "#9fb87f",
    services.BOTH: "#b0a060",
    services.WORKER: "#8a7c48",
    services.DAEMON: "#c8643c",
}
COLOURS.update(zip(services.PEERS, ("#7a5fa8", "#4f8f8f")))
OTHER = "#a0a0a0"

HEAD = """<!DOCTYPE html>
<html lang="en"><meta charset="utf-8"><title>billing service: figures of {revision}</title>
<style>
 body {{ font: 15px/1.5 sans-serif; max-width: 60em; margin: 2em auto; padding: 0 1em; color: #222; }}
 h2 {{ margin: 2em 0 .3em; font-size: 1.05em; }} svg {{ display: block; }} text {{ font: 13px sans-serif; }}
 table {{ border-collapse: collapse; font-size: 13px; }} td, th {{ padding: .2em .8em .2em 0; text-align: left; }}
 td.n {{ text-align: right; font-variant-numeric: tabular-nums; }} .missed {{ color: #b00; font-weight: bold; }}
</style>
<h1>Figures of {revision}</h1>
<p>{circumstances} A bar is the median of the rounds, the line over it the middle half of them.</p>
"""


def _bar(y, figure, who, scale):
    low, high = (LABEL + value * scale for value in figure.quartiles)
    end, middle = LABEL + figure.median * scale, y + BAR / 2
    goal = ""
    if figure.goal is not None:
        x = LABEL + figure.goal.value * scale
        goal = f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{y - 3}" y2="{y + BAR + 3}" stroke="#b00" stroke-dasharray="3 2"/>'
    return (
        f'<text x="{LABEL - 8}" y="{y + 13}" text-anchor="end">{html.escape(who)}</text>'
        f'<rect x="{LABEL}" y="{y}" width="{max(end - LABEL, 1):.1f}" height="{BAR}" '
        f'fill="{COLOURS.get(who, OTHER)}"/>'
        f'<line x1="{low:.1f}" x2="{high:.1f}" y1="{middle}" y2="{middle}" stroke="#222" stroke-width="2"/>{goal}'
        f'<text x="{max(end, high) + 6:.1f}" y="{y + 13}">{results.shown(figure.median)} {figure.unit}</text>'
    )


def _plot(title, bars):
    """@param bars  [(label, figure)], all of one unit"""
    most = max(max(figure.quartiles[1], figure.median, figure.goal.value if figure.goal else 0) for _, figure in bars) or 1
    scale = (WIDTH - LABEL - 130) / most
    drawn = "".join(_bar(i * (BAR + GAP) + 4, figure, label, scale) for i, (label, figure) in enumerate(bars))
    height = len(bars) * (BAR + GAP) + 8
    return (
        f"<h2>{html.escape(title)}</h2>"
        f'<svg viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}" role="img">{drawn}</svg>'
    )


def _groups(figures):
    """Figures whose names differ behind the colon only, and that have one unit, stand in one plot."""
    groups = {}
    for name, figure in figures.items():
        title, _, label = name.partition(": ")
        groups.setdefault((title, figure.unit, "/" in label), []).append((label or title, figure))
    return groups


def _rows(figures):
    for figure in figures.values():
        low, high = figure.quartiles
        goal = "" if figure.goal is None else str(figure.goal)
        missed = ' class="missed"' if figure.reached is False else ""
        yield (
            f"<tr><td>{html.escape(figure.name)}</td><td class=n>{results.shown(figure.median)}</td>"
            f"<td>{figure.unit}</td><td class=n>{results.shown(low)} to {results.shown(high)}</td>"
            f"<td{missed}>{goal}</td></tr>"
        )


def _goals(figures):
    """The figures that something is aimed at."""
    aimed = {name: figure for name, figure in figures.items() if figure.goal is not None}
    if not aimed:
        return ""
    return f"<h2>Goals</h2><table><tr><th>figure<th>median<th><th>middle half<th>goal</tr>{''.join(_rows(aimed))}</table>"


def _behaviours(behaviour):
    """What services do where something goes wrong, one column each."""
    if not behaviour:
        return ""
    who = list(dict.fromkeys(label for row in behaviour.values() for label in row))
    head = "".join(f"<th>{html.escape(label)}" for label in who)
    rows = "".join(
        f"<tr><td>{html.escape(name)}</td>" + "".join(f"<td>{html.escape(row.get(label, ''))}</td>" for label in who) + "</tr>"
        for name, row in behaviour.items()
    )
    return f"<h2>What the speed costs</h2><table><tr><th>{head}</tr>{rows}</table>"


def page(about, figures, behaviour=None):
    """@return the page as text"""
    plots = "\n".join(_plot(title, bars) for (title, _, _), bars in _groups(figures).items())
    return (
        HEAD.format(revision=html.escape(about["revision"]), circumstances=html.escape(results.circumstances(about)))
        + _goals(figures)
        + _behaviours(behaviour or {})
        + plots
        + "<h2>All of them</h2><table><tr><th>figure<th>median<th><th>middle half<th>goal</tr>"
        + "\n".join(_rows(figures))
        + "</table></html>\n"
    )
