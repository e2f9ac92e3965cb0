"""Medians, spreads and ratios of a run, set against the goals, as text, Markdown and pictures."""

from __future__ import annotations

from collections.abc import Sequence
from statistics import median

from charts import Point, chart

#: The figures of each round, by their names.
Rounds = list[dict[str, float]]
#: By workload, contestant and size.
Results = dict[str, dict[str, dict[int, Rounds]]]

BEGIN = "<!-- figures: written by scripts/bench -->"
END = "<!-- end of figures -->"


def number(value: float) -> str:
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


class Figure:
    """One figure of one contestant over all rounds."""

    def __init__(self, rounds: Rounds, key: str) -> None:
        self.values = [figures[key] for figures in rounds]
        self.middle = median(self.values)

    def __str__(self) -> str:
        return f"{number(self.middle)} ({number(min(self.values))} … {number(max(self.values))})"

    def point(self, x: int) -> Point:
        return (x, self.middle, min(self.values), max(self.values))


class Row:
    """A goal. The ratio is the median of those of the single rounds, whose contestants ran right
    after each other. `sense` is "≥" or "≤"."""

    def __init__(self, workload: str, unit: str, ours: Figure, against: str, other: Figure | None,
                 sense: str, goal: float) -> None:
        self.workload, self.unit, self.against = workload, unit, against
        self.ours, self.other, self.sense, self.goal = ours, other, sense, goal
        if other is None:
            self.value = ours.middle
        else:
            self.value = median(mine / theirs
                                for mine, theirs in zip(ours.values, other.values))

    def met(self) -> bool:
        return self.value >= self.goal if self.sense == "≥" else self.value <= self.goal

    def cells(self) -> list[str]:
        return [self.workload, self.unit, str(self.ours), self.against,
                str(self.other) if self.other else "", f"{self.value:.3g}" if self.other else "",
                f"{self.sense} {self.goal:g}", "yes" if self.met() else "**no**"]


# What a reader asks first; everything else stands in the document of all figures.
HEADLINES = {("one client, round trips", "redis"), ("one client, p99", "redis"),
             ("8 clients, total", "redis"), ("512 clients, total", "redis"),
             ("connect, command, close", "redis"),
             ("memory of an idle client, 2,000 of them", "bare"),
             ("change to 10 listeners, p50", "mosquitto"),
             ("change to 10 listeners, p50", "redis"),
             ("change to 1000 listeners, p50", "redis"),
             ("idle board, CPU", "bare")}

# How long the median change may take, by the number of listeners, beside others before the same
# board.
BROADCAST_GOALS = {1: {"bare": 1.1, "mosquitto": 0.9, "redis": 1.0},
                   10: {"bare": 1.1, "mosquitto": 0.9, "redis": 1.0},
                   100: {"bare": 1.1, "mosquitto": 0.95, "redis": 1.2},
                   1000: {"bare": 1.1, "mosquitto": 0.7, "redis": 1.05}}

HEADINGS = ["Workload", "Unit", "Server", "Against", "Its figure", "Ratio", "Goal", "Met"]


def goal_rows(results: Results) -> list[Row]:
    rows = []

    def add(workload: str, title: str, unit: str, key: str, series: str, x: int,
            against: str | None, sense: str, goal: float) -> None:
        if workload not in results or x not in results[workload][series]:
            return
        ours = Figure(results[workload][series][x], key)
        other = Figure(results[workload][against][x], key) if against else None
        rows.append(Row(title, unit, ours, against or "", other, sense, goal))

    for against, goal in (("bare", 0.95), ("bare, one write", 0.95), ("redis", 1.0), ("upsd", 1.0)):
        add("latency", "one client, round trips", "1/s", "rate", "server", 1, against, "≥", goal)
    add("latency", "one client, p50", "µs", "p50", "server", 1, "bare", "≤", 2)
    for against, goal in (("bare", 2), ("redis", 1.0)):
        add("latency", "one client, p99", "µs", "p99", "server", 1, against, "≤", goal)
    for clients in (1, 8, 64, 512):
        title = f"{clients} client{'s' if clients > 1 else ''}, total"
        for against, goal in (("bare", 0.95), ("redis", 1.2)):
            if against == "bare" or clients > 1:
                add("rates", title, "1/s", "rate", "server", clients, against, "≥", goal)
    for against, goal in (("bare", 0.8), ("redis", 1.0)):
        add("connects", "connect, command, close", "1/s", "rate", "server", 1, against, "≥", goal)
    add("memory", "memory of an idle client, 2,000 of them", "KiB", "kilobytes", "server", 2000,
        "bare", "≤", 1.1)
    for listeners, goals in BROADCAST_GOALS.items():
        title = f"change to {listeners} listener{'s' if listeners > 1 else ''}"
        for against, goal in goals.items():
            add("broadcast", f"{title}, p50", "µs", "p50", "server", listeners, against, "≤", goal)
        for against, goal in (("bare", 1.1), ("mosquitto", 1.0), ("redis", 1.0)):
            add("broadcast", f"{title}, p99", "µs", "p99", "server", listeners, against, "≤", goal)
    for against in ("bare", "bare beside a reader", "bare server"):
        add("writes", "pin writes for 8 clients", "1/s", "rate", "server", 1, against, "≥", 0.9)
    add("writes", "pin writes, one client that waits", "1/s", "rate", "server, one client", 1,
        "bare server, one client", "≥", 0.9)
    add("writes", "pin writes, one client 16 ahead", "1/s", "rate", "server, one client ahead", 1,
        "bare server, one client ahead", "≥", 0.9)
    for name in sorted(results.get("micro", {})):
        add("micro", f"in process, {name.replace('/', ' bank, ')}", "ns", "nanoseconds", name, 1,
            None, "≤", 300)
    add("idle", "idle board, CPU", "%", "percent", "server", 1, "bare", "≤", 0.05)
    add("start", "start to first answer", "µs", "p50", "server", 1, None, "≤", 20000)
    return rows


def side_rows(results: Results) -> list[list[str]]:
    """Figures without a goal that explain the others."""
    wanted = [("latency", "bare, one write", "rate", 1, "one client, round trips", "1/s"),
              ("rates", "redis", "rate", 1, "1 client, total", "1/s"),
              *(("rates", "bare, one write", "rate", clients, f"{clients} clients, total", "1/s")
                for clients in (8, 64, 512)),
              ("connects", "server, no log", "rate", 1, "connect, command, close", "1/s"),
              ("idle", "bare asleep", "percent", 1, "idle board, waiting asleep", "%")]
    for listeners in (1, 10, 100, 1000):
        for name in ("bare, one write", "server, no log", "redis, no board", "mosquitto, no board"):
            wanted.append(("broadcast", name, "p50", listeners,
                           f"change to {listeners} listener{'s' if listeners > 1 else ''}, p50",
                           "µs"))
    return [[title, unit, series, str(Figure(results[workload][series][x], key))]
            for workload, series, key, x, title, unit in wanted
            if x in results.get(workload, {}).get(series, {})]


def aligned(headings: list[str], rows: list[list[str]]) -> str:
    widths = [max(len(row[column]) for row in [headings, *rows])
              for column in range(len(headings))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                     for row in [headings, *rows])


def markdown(headings: list[str], rows: list[list[str]]) -> str:
    lines = [headings, ["---"] * len(headings), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def text(results: Results) -> str:
    parts = [aligned(HEADINGS, [row.cells() for row in goal_rows(results)])]
    side = side_rows(results)
    if side:
        parts.append(aligned(["Beside them", "Unit", "Contestant", "Figure"], side))
    return "\n\n".join(parts)


def growth_table(results: Results, workload: str, keys: Sequence[tuple[str, str]],
                 first: str) -> str:
    names = list(results[workload])
    rows = [[f"{x:,}"] + [number(Figure(results[workload][name][x], key).middle)
                          for key, _ in keys for name in names]
            for x in results[workload][names[0]]]
    return markdown([first] + [f"{name}, {unit}" for _, unit in keys for name in names], rows)


def pictures(results: Results) -> dict[str, str]:
    """{file name: SVG}"""
    def lines(workload: str, key: str, names: Sequence[str] | None = None) -> dict[str,
              list[Point]]:
        return {name: [Figure(rounds, key).point(x) for x, rounds in points.items()]
                for name, points in results[workload].items() if not names or name in names}

    wanted = [("rate.svg", "rates", "rate", "Answers of all clients together", "clients",
               "answers per second"),
              ("latency.svg", "rates", "p50", "Round trip, median", "clients", "microseconds"),
              ("memory.svg", "memory", "kilobytes", "Resident memory of an idle client", "clients",
               "KiB for each client"),
              ("broadcast.svg", "broadcast", "p50", "One change until the last listener has it",
               "listeners", "microseconds")]
    shown = ("server", "bare", "redis", "mosquitto")
    return {file: chart(title, x_label, y_label, lines(workload, key, shown))
            for file, workload, key, title, x_label, y_label in wanted if workload in results}


def headlines(results: Results, facts: list[str]) -> str:
    """What goes between the markers of docs/performance.md."""
    rows = [row.cells() for row in goal_rows(results) if (row.workload, row.against) in HEADLINES]
    return "\n\n".join([BEGIN, listing(facts), markdown(HEADINGS, rows), END])


def listing(facts: list[str]) -> str:
    return "\n".join(f"- {fact}" for fact in facts)


def all_figures(results: Results, facts: list[str]) -> str:
    """docs/figures.md as a whole."""
    return "\n\n".join([
        "# All figures",
        "Written by `scripts/bench`; [performance.md](performance.md) explains them.",
        listing(facts), "## Goals", markdown(HEADINGS, [row.cells() for row in goal_rows(results)]),
        "## Beside them, without a goal",
        markdown(["Workload", "Unit", "Contestant", "Figure"], side_rows(results)),
        "## Growth with the clients",
        growth_table(results, "rates", (("rate", "1/s"), ("p50", "p50 µs")), "Clients"),
        "![Round trip by clients](images/latency.svg)",
        growth_table(results, "memory", (("kilobytes", "KiB"),), "Idle clients"),
        "![Memory by clients](images/memory.svg)",
        "## Growth with the listeners",
        growth_table(results, "broadcast", (("p50", "p50 µs"),), "Listeners")]) + "\n"


def insert(document: str, new_section: str) -> str:
    head, _, rest = document.partition(BEGIN)
    _, found, tail = rest.partition(END)
    if not found:
        raise RuntimeError("the document lacks the markers of its figures")
    return head + new_section + tail
