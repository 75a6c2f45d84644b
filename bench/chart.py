"""A chart as inline SVG, in the colours that the page has named."""
import math

from markup import element

WIDTH, HEIGHT = 360, 210
LEFT, RIGHT, TOP, BOTTOM = 46, 12, 10, 24
COLOURS = 6  # s0 ... s5 in the style of the page


def draw(chart, order):
    """`order` tells the colour of each name: the same in all charts of a suite."""
    scale = Scale([value for values in chart.lines.values() for value in values if positive(value)])
    step = (WIDTH - LEFT - RIGHT) / max(len(chart.labels), 1)
    xs = [LEFT + step * (at + 0.5) for at in range(len(chart.labels))]
    texts = [element("text", label, x=f"{x:.1f}", y=HEIGHT - 8, text_anchor="middle")
             for x, label in zip(xs, chart.labels)]
    # Ours comes last, above the others.
    names = sorted(chart.lines, key=order.index, reverse=True)
    lines = [draw_line(name, order.index(name), list(zip(xs, chart.labels, chart.lines[name])),
                       scale, chart.unit) for name in names]
    return element("svg", element("title", chart.title), *draw_grid(scale, chart.unit), *texts, *lines,
                   viewBox=f"0 0 {WIDTH} {HEIGHT}", role="img")


def positive(value):
    return value is not None and value > 0


class Scale:
    """Logarithmic, from a tick below the smallest value to one above the largest."""

    def __init__(self, values):
        low, high = (min(values), max(values)) if values else (1, 1)
        decades = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
        digits = (1,) if math.log10(high / low) > 2.5 else (1, 2, 5)
        ticks = [digit * 10.0 ** decade for decade in decades for digit in digits]
        below = max((tick for tick in ticks if tick <= low * 0.999), default=low / 2)
        above = min((tick for tick in ticks if tick >= high * 1.001), default=high * 2)
        self.ticks = [tick for tick in ticks if below <= tick <= above]
        self.low, self.high = math.log10(below), math.log10(above)

    def y(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return HEIGHT - BOTTOM - part * (HEIGHT - BOTTOM - TOP)


def draw_grid(scale, unit):
    for number, tick in enumerate(reversed(scale.ticks)):
        y = f"{scale.y(tick):.1f}"
        yield element("line", class_="grid", x1=LEFT, x2=WIDTH - RIGHT, y1=y, y2=y)
        text = f"{short(tick)} {unit}" if number == 0 else short(tick)
        yield element("text", text, x=LEFT - 4, y=y, text_anchor="end", dominant_baseline="middle")


def short(value):
    for size, letter in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if value >= size:
            return f"{value / size:g}{letter}"
    return f"{value:g}"


def draw_line(name, number, points, scale, unit):
    points = [(x, label, value) for x, label, value in points if positive(value)]
    path = " ".join(f"{x:.1f},{scale.y(value):.1f}" for x, _, value in points)
    dots = [element("circle", element("title", f"{name}, {label}: {value:.4g} {unit}"),
                    cx=f"{x:.1f}", cy=f"{scale.y(value):.1f}", r=3) for x, label, value in points]
    return element("g", element("polyline", points=path), *dots, class_=colour(number))


def colour(number):
    """Beyond the colours that there are, lines are dashed."""
    return f"s{number % COLOURS}" + (" dashed" if number >= COLOURS else "")


def legend(names, order):
    return element("ul", *(element("li", element("span", class_="swatch"), name,
                                   class_=colour(order.index(name))) for name in names),
                   class_="legend")


def figure(chart, order):
    return element("figure", element("figcaption", chart.title),
                   legend(sorted(chart.lines, key=order.index), order), draw(chart, order))
