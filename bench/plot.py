"""Line charts as SVG, using only the standard library. The x axis doubles from tick to tick."""
import math

WIDTH, HEIGHT = 640, 360
LEFT, RIGHT, TOP, BOTTOM = 72, 150, 40, 52
COLOURS = ("#1f5fa8", "#c0504d", "#4f8a3c", "#7a5aa6")


def ticks(low, high, from_zero):
    """Ticks of the y axis: round steps from zero, or powers of ten."""
    if from_zero:
        step = 10 ** math.floor(math.log10(high))
        step = next(s for s in (step / 5, step / 2, step, step * 2) if high / s <= 6)
        return [i * step for i in range(math.floor(high / step) + 1)]
    return [10.0**e for e in range(math.ceil(math.log10(low)), math.floor(math.log10(high)) + 1)]


def lines(path, title, x_label, y_label, series, from_zero=False):
    series = {name: points for name, points in series.items() if points}
    if not series:
        return
    xs = sorted({x for points in series.values() for x, _ in points})
    ys = [y for points in series.values() for _, y in points]
    low, high = (0, max(ys) * 1.1) if from_zero else (min(ys) / 1.3, max(ys) * 1.3)
    span = math.log2(xs[-1] / xs[0]) or 1

    def at_x(x):
        return LEFT + (WIDTH - LEFT - RIGHT) * math.log2(x / xs[0]) / span

    def at_y(y):
        part = y / high if from_zero else math.log(y / low) / math.log(high / low)
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * part

    def text(x, y, words, anchor="middle", more=""):
        return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}"{more}>{words}</text>'

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif"'
           ' font-size="12" fill="#333">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#fff"/>',
           text(LEFT, 22, title, "start", ' font-size="15"')]
    for y in ticks(low, high, from_zero):
        out.append(f'<path d="M{LEFT} {at_y(y):.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>')
        out.append(text(LEFT - 6, at_y(y) + 4, f"{y:g}", "end"))
    for x in xs:
        out.append(text(at_x(x), HEIGHT - BOTTOM + 18, x))
    out.append(text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, x_label))
    middle = (TOP + HEIGHT - BOTTOM) / 2
    out.append(text(18, middle, y_label, "middle", f' transform="rotate(-90 18 {middle:.0f})"'))
    labels = []
    for colour, (name, points) in zip(COLOURS, series.items()):
        path_data = "L".join(f"{at_x(x):.1f} {at_y(y):.1f}" for x, y in points)
        out.append(f'<path d="M{path_data}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out += [f'<circle cx="{at_x(x):.1f}" cy="{at_y(y):.1f}" r="3" fill="{colour}"/>' for x, y in points]
        labels.append([at_y(points[-1][1]), name, colour])
    labels.sort()
    for i, (y, name, colour) in enumerate(labels):  # next to the ends of the lines, without overlap
        if i > 0 and y < labels[i - 1][0] + 15:
            y = labels[i][0] = labels[i - 1][0] + 15
        out.append(text(WIDTH - RIGHT + 10, y + 4, name, "start", f' fill="{colour}"'))
    path.write_text("\n".join(out + ["</svg>"]) + "\n")
