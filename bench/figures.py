"""Figures, their goals, and how they are shown."""
import dataclasses
import json
import statistics


def quartiles(samples):
    if len(samples) < 4:
        return min(samples), max(samples)
    low, _, high = statistics.quantiles(samples, n=4)
    return low, high


def number(value):
    """Three significant digits, no exponent."""
    if value == 0:
        return "0"
    digits = max(0, 2 - int(f"{abs(value):e}".split("e")[1]))
    return f"{value:,.{digits}f}".replace(",", " ")


@dataclasses.dataclass
class Figure:
    """One line of the table. `goal` is (what, comparison, limit): what is "ratio" or "value", the
    comparison "<=" or ">=". A figure without a goal is shown for what it is."""
    name: str
    unit: str
    samples: list
    floor: list = dataclasses.field(default_factory=list)
    goal: tuple = None
    scale: float = 1

    def median(self):
        return statistics.median(self.samples) * self.scale

    def floor_median(self):
        return statistics.median(self.floor) * self.scale if self.floor else None

    def ratio(self):
        return self.median() / self.floor_median() if self.floor else None

    def reached(self):
        if self.goal is None:
            return None
        what, comparison, limit = self.goal
        value = self.ratio() if what == "ratio" else self.median()
        return value <= limit if comparison == "<=" else value >= limit

    def goal_text(self):
        if self.goal is None:
            return ""
        what, comparison, limit = self.goal
        sign = {"<=": "≤", ">=": "≥"}[comparison]
        return f"{sign} {limit:g} × floor" if what == "ratio" else f"{sign} {limit:g} {self.unit}".rstrip()

    def cells(self):
        low, high = quartiles([sample * self.scale for sample in self.samples])
        floor, ratio = self.floor_median(), self.ratio()
        verdict = {None: "", True: "reached", False: "**missed**"}[self.reached()]
        return [self.name, self.goal_text(), f"{number(self.median())} {self.unit}".rstrip(),
                f"{number(low)} to {number(high)}", "" if floor is None else number(floor),
                "" if ratio is None else f"{ratio:.2f}", verdict]

    def record(self):
        return {"figure": self.name, "unit": self.unit, "goal": self.goal_text(), "median": self.median(),
                "quartiles": quartiles([sample * self.scale for sample in self.samples]),
                "floor": self.floor_median(), "ratio": self.ratio(), "reached": self.reached(),
                "samples": [sample * self.scale for sample in self.samples],
                "floor_samples": [sample * self.scale for sample in self.floor]}


HEADINGS = ["figure", "goal", "median", "quartiles", "floor", "ratio", ""]


def table(rows, headings):
    """Markdown that reads well as plain text too."""
    widths = [max(len(row[i]) for row in [headings, *rows]) for i in range(len(headings))]
    lines = [headings, ["-" * width for width in widths], *rows]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
                     for line in lines) + "\n"


def write_json(path, figures, **rest):
    path.write_text(json.dumps({"figures": [figure.record() for figure in figures], **rest}, indent=1) + "\n")
