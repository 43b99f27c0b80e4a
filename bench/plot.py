"""A line plot as an SVG of a few kilobytes, horizontal axis logarithmic."""
import math

WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 560, 300, 60, 150, 36, 46
COLOURS = ("#1b6ca8", "#c8553d", "#3a7d44", "#7a5195")


def number(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def write(path, title, x_label, lines):
    """`lines`: {label with its unit: [(x, y), ...]}; x is greater than 0."""
    points = [point for line in lines.values() for point in line]
    low, high = (math.log10(pick(x for x, _ in points)) for pick in (min, max))
    top = max(y for _, y in points) * 1.1 or 1

    def place(x, y):
        across = (math.log10(x) - low) / ((high - low) or 1)
        return LEFT + across * (WIDTH - LEFT - RIGHT), HEIGHT - BOTTOM - y / top * (HEIGHT - TOP
                                                                                  - BOTTOM)
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
           'font-family="sans-serif" font-size="11">',
           '<rect width="100%" height="100%" fill="white"/>',
           f'<text x="{LEFT}" y="20" font-size="13">{title}</text>',
           f'<text x="{LEFT}" y="{HEIGHT - 8}">{x_label}</text>']
    for step in range(5):
        y = top * step / 4
        (left, height), (right, _) = place(10 ** low, y), place(10 ** high, y)
        svg += [f'<path d="M{left:.0f} {height:.0f}H{right:.0f}" stroke="#ddd"/>',
                f'<text x="{left - 6:.0f}" y="{height + 4:.0f}" text-anchor="end">{number(y)}</text>']
    for x in sorted({x for x, _ in points}):
        svg.append(f'<text x="{place(x, 0)[0]:.0f}" y="{HEIGHT - BOTTOM + 16}" '
                   f'text-anchor="middle">{x:,}</text>')
    for colour, (label, line) in zip(COLOURS, lines.items()):
        placed = [place(x, y) for x, y in line]
        path_data = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
        svg.append(f'<polyline points="{path_data}" fill="none" stroke="{colour}" '
                   'stroke-width="2"/>')
        svg += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in placed]
        x, y = placed[-1]
        svg.append(f'<text x="{x + 8:.0f}" y="{y + 4:.0f}" fill="{colour}">{label}</text>')
    path.write_text("\n".join([*svg, "</svg>\n"]))
