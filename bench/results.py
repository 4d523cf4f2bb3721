"""Evaluates the runs: medians with their spread, ratios, goals, a picture.

`runs` is a dictionary from (mode, tunnel) to a list with one entry per round: a dictionary of figures, or the reason of
the failure as text.
"""

import statistics
from typing import NamedTuple

OURS = "gx-ssh"
NO_RATIO = {"slowest_of_mean", "trips", "failed"}


class Goal(NamedTuple):
    mode: str
    figure: str
    at_least: bool
    bound: float
    over: str = ""  # the tunnel by whose median ours is divided; empty: ours is not divided
    over_mode: str = ""  # its mode, if it differs from `mode`


GOALS = [
    Goal("up-1", "mb_per_s", True, 1.5, "ssh -L"),
    Goal("up-1", "cpu_s_per_gb", False, 0.5, "ssh -L"),
    Goal("up-1", "cpu_s_per_gb", False, 1.05, "bare relay"),
    Goal("down-1", "mb_per_s", True, 1.4, "ssh -L"),
    Goal("down-1", "cpu_s_per_gb", False, 0.34, "ssh -L"),
    Goal("down-1", "cpu_s_per_gb", False, 0.9, "bare relay"),
    Goal("up-8", "mb_per_s", True, 1.6, "ssh -L"),
    Goal("up-8", "slowest_of_mean", True, 0.8),
    Goal("down-8", "mb_per_s", True, 2.0, "ssh -L"),
    Goal("down-8", "slowest_of_mean", True, 0.8),
    Goal("trip", "p50_us", False, 0.55, "ssh -L"),
    Goal("trip", "p99_us", False, 0.6, "ssh -L"),
    Goal("trip", "p50_us", False, 0.9, "2 socat"),
    Goal("trip", "cpu_us_per_trip", False, 0.75, "ssh -L"),
    Goal("trip-up", "p50_us", False, 0.6, "ssh -L"),
    Goal("trip-up", "bulk_mb_per_s", True, 1.0, "ssh -L"),
    Goal("trip-down", "p50_us", False, 0.6, "ssh -L"),
    Goal("trip-down", "bulk_mb_per_s", True, 1.0, "ssh -L"),
    Goal("connect-1", "per_s", True, 2.5, "dbclient -L"),
    Goal("connect-1", "cpu_us_per_connection", False, 80),
    Goal("connect-1", "failed", False, 0),
    Goal("connect-8", "per_s", True, 1.2, "dbclient -L"),
    Goal("connect-8", "failed", False, 0),
    Goal("idle-900", "p50_us", False, 2.5, OURS, "idle-0"),
    Goal("idle-900", "p50_us", False, 0.6, "dbclient -L"),
    Goal("idle-900", "p50_us", False, 0.15, "ssh -L"),
    Goal("idle-900", "cpu_us_per_trip", False, 120),
    Goal("idle-900", "rss_mb", False, 14),
    Goal("nothing", "cpu_s", False, 0.01),  # one tick of the kernel's clock
    Goal("scp-up", "s", False, 1.0, "haproxy"),
    Goal("scp-down", "s", False, 1.0, "haproxy"),
    Goal("proxy-up", "s", False, 1.15, "none"),
    Goal("proxy-down", "s", False, 1.15, "none"),
]


def values(runs, mode, tunnel, figure):
    """One value per round; None unless every round has one."""
    rounds = runs.get((mode, tunnel), [])
    found = [each[figure] for each in rounds if isinstance(each, dict) and figure in each]
    return found if found and len(found) == len(rounds) else None


def median(runs, mode, tunnel, figure):
    found = values(runs, mode, tunnel, figure)
    return None if found is None else statistics.median(found)


def number(value):
    """The value with three significant digits."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    digits = max(0, 3 - len(str(int(abs(value))))) if abs(value) >= 1 else 3
    return f"{value:,.{digits}f}"


def cell(runs, mode, tunnel, figure):
    rounds = runs.get((mode, tunnel), [])
    if any(isinstance(each, str) for each in rounds):
        return "failed"
    found = values(runs, mode, tunnel, figure)
    if found is None:
        return "–"
    middle = number(statistics.median(found))
    return middle if len(found) == 1 else f"{middle} ({number(min(found))}–{number(max(found))})"


def rows(runs):
    """Each (mode, figure) that any tunnel has, in the order of the runs, grouped by mode."""
    found = {}
    for (mode, _), rounds in runs.items():
        for each in rounds:
            if isinstance(each, dict):
                found.update(dict.fromkeys((mode, figure) for figure in each))
    modes = list(dict.fromkeys(mode for mode, _ in found))
    return sorted(found, key=lambda row: modes.index(row[0]))


def markdown(heading, lines):
    table = [heading, ["---"] + ["--:"] * (len(heading) - 1), *lines]
    return "\n".join("| " + " | ".join(line) + " |" for line in table)


def table(runs, tunnels, some=None):
    """Medians, with the least and the greatest of the rounds in parentheses. `some`: only these of the rows."""
    return markdown(["", *tunnels], [[f"{mode} {figure}"] + [cell(runs, mode, tunnel, figure) for tunnel in tunnels]
                                     for mode, figure in rows(runs) if some is None or (mode, figure) in some])


def ratios(runs, tunnels):
    """Our median divided by that of each other tunnel, without figures whose ratio has no meaning."""
    others = [tunnel for tunnel in tunnels if tunnel != OURS]

    def ratio(mode, figure, tunnel):
        ours, theirs = median(runs, mode, OURS, figure), median(runs, mode, tunnel, figure)
        return number(ours / theirs) if ours is not None and theirs else "–"

    return markdown([f"{OURS} /", *others], [[f"{mode} {figure}"] + [ratio(mode, figure, each) for each in others]
                                             for mode, figure in rows(runs) if figure not in NO_RATIO])


def judge(runs, goal):
    """The goal's value, and whether it is reached; None, None when it was not measured."""
    value = median(runs, goal.mode, OURS, goal.figure)
    if value is not None and goal.over:
        theirs = median(runs, goal.over_mode or goal.mode, goal.over, goal.figure)
        value = value / theirs if theirs else None
    if value is None:
        return None, None
    return value, value >= goal.bound if goal.at_least else value <= goal.bound


def goals(runs):
    lines = []
    for goal in GOALS:
        if goal.mode not in {mode for mode, _ in runs}:
            continue
        value, reached = judge(runs, goal)
        verdict = {None: "not measured", True: "reached", False: "NOT reached"}[reached]
        what = f"{goal.mode} {goal.figure}" + (f", / {goal.over}" if goal.over else "") + (
            f" {goal.over_mode}" if goal.over_mode else "")
        lines.append([what, ("≥ " if goal.at_least else "≤ ") + f"{goal.bound:g}", number(value), verdict])
    return markdown(["goal", "bound", "is", ""], lines)


# The figures for the documents: those of the goals, and a few that explain them.
MAIN = {(goal.mode, goal.figure) for goal in GOALS} | {
    ("trip", "p99.9_us"), ("trip", "cpu_us_per_trip"), ("trip-up", "p99_us"), ("trip-down", "p99_us"),
    ("idle-0", "p50_us"), ("idle-100", "p50_us"), ("idle-400", "p50_us"), ("idle-900", "rss_mb")}

BEGIN, END = "<!-- the last run -->\n", "<!-- up to here -->\n"


def replace_section(text, about, runs, tunnels):
    """The document `text` with the figures of this run between its two marks."""
    before, rest = text.split(BEGIN)
    section = "\n\n".join([about, table(runs, tunnels, MAIN), goals(runs)])
    return f"{before}{BEGIN}\n{section}\n\n{END}{rest.split(END)[1]}"


def failures(runs):
    return [f"{mode}, {tunnel}: {each}" for (mode, tunnel), rounds in runs.items() for each in rounds
            if isinstance(each, str)]


PANELS = [
    ("up-1", "mb_per_s", "sent, MB/s", True),
    ("down-1", "mb_per_s", "received, MB/s", True),
    ("trip", "p50_us", "round trip, µs", False),
    ("trip-up", "p50_us", "round trip beside a transfer, µs", False),
    ("connect-8", "per_s", "connections/s, 8 threads", True),
    ("idle-900", "p50_us", "round trip beside 900 idle, µs", False),
]
BAR, WIDTH, LABEL = 18, 400, 110  # in pixels: height of a bar, width of a panel, width of the names in it


def bars(runs, tunnels, panel):
    """The lines of one panel, below its upper left corner."""
    mode, figure, title, more_is_better = panel
    found = {tunnel: values(runs, mode, tunnel, figure) for tunnel in tunnels}
    longest = max([max(each) for each in found.values() if each], default=1) or 1
    scale = (WIDTH - LABEL - 90) / longest
    yield f'<text y="14" font-weight="bold">{title} ({"more" if more_is_better else "less"} is better)</text>'
    for line, (tunnel, each) in enumerate(found.items()):
        y = 24 + line * BAR
        yield f'<text x="{LABEL - 6}" y="{y + 12}" text-anchor="end">{tunnel}</text>'
        length = statistics.median(each) * scale if each else 0
        colour = "#1f6fb4" if tunnel == OURS else "#b8c4cf"
        yield f'<rect x="{LABEL}" y="{y}" width="{length:.1f}" height="{BAR - 4}" fill="{colour}"/>'
        if not each:
            yield f'<text x="{LABEL + 4}" y="{y + 12}">–</text>'
            continue
        least, greatest, middle = LABEL + min(each) * scale, LABEL + max(each) * scale, y + BAR / 2 - 2
        yield f'<path d="M{least:.1f} {middle}H{greatest:.1f}" stroke="#333"/>'
        yield f'<text x="{greatest + 5:.1f}" y="{y + 12}">{number(statistics.median(each))}</text>'


def picture(runs, tunnels):
    """An SVG of the main medians, each with a line from the least to the greatest of the rounds."""
    panels = [panel for panel in PANELS if any(values(runs, panel[0], tunnel, panel[1]) for tunnel in tunnels)]
    height = 40 + len(tunnels) * BAR
    lines = []
    for i, panel in enumerate(panels):
        lines.append(f'<g transform="translate({10 + i % 2 * (WIDTH + 20)} {10 + i // 2 * height})">')
        lines += [*bars(runs, tunnels, panel), "</g>"]
    size = f'width="{2 * WIDTH + 40}" height="{10 + (len(panels) + 1) // 2 * height}"'
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif" font-size="12">',
                      '<rect width="100%" height="100%" fill="white"/>', *lines, "</svg>", ""])
