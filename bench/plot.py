"""A line plot as an SVG of a few kilobytes, both axes logarithmic."""
import math

WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 640, 320, 60, 190, 36, 46
COLOURS = ("#1b6ca8", "#c8553d", "#3a7d44", "#7a5195", "#b8860b", "#5f6b6d")


def spread(heights, gap=14):
    """Moves labels down as far as they would overlap."""
    free = 0
    for index in sorted(range(len(heights)), key=heights.__getitem__):
        heights[index] = free = max(heights[index], free + gap)
    return heights


def write(path, title, x_label, lines):
    """`lines`: {label with its unit: [(x, y), ...]}, all numbers greater than 0."""
    xs = sorted({x for line in lines.values() for x, _ in line})
    ys = [y for line in lines.values() for _, y in line]
    low, high = math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys)))

    def place(x, y):
        across = math.log10(x / xs[0]) / math.log10(xs[-1] / xs[0])
        up = (math.log10(y) - low) / (high - low)
        return (LEFT + across * (WIDTH - LEFT - RIGHT),
                HEIGHT - BOTTOM - up * (HEIGHT - TOP - BOTTOM))

    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
           'font-family="sans-serif" font-size="11">',
           '<rect width="100%" height="100%" fill="white"/>',
           f'<text x="{LEFT}" y="20" font-size="13">{title}</text>',
           f'<text x="{LEFT}" y="{HEIGHT - 10}">{x_label}</text>']
    for y in (10 ** power for power in range(low, high + 1)):
        height = place(xs[0], y)[1]
        svg += [f'<path d="M{LEFT} {height:.0f}H{WIDTH - RIGHT}" stroke="#ddd"/>',
                f'<text x="{LEFT - 6}" y="{height + 4:.0f}" text-anchor="end">{y:,.5g}</text>']
    svg += [f'<text x="{place(x, 10 ** low)[0]:.0f}" y="{HEIGHT - BOTTOM + 16}" '
            f'text-anchor="middle">{x:,}</text>' for x in xs]
    labels = spread([place(*line[-1])[1] + 4 for line in lines.values()])
    for colour, height, (label, line) in zip(COLOURS, labels, lines.items()):
        placed = [place(x, y) for x, y in line]
        points = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
        svg += [f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>',
                *(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in placed),
                f'<text x="{WIDTH - RIGHT + 10}" y="{height:.0f}" fill="{colour}">{label}</text>']
    path.write_text("\n".join([*svg, "</svg>\n"]))
