#!/usr/bin/env python3
"""Draws the resource library's icons and banner bitmaps (standard library only).

    make_images.py OUTDIR [--preview FILE.png]

Writes into OUTDIR:
  tray-idle.ico, tray-connected.ico, tray-pending.ico, tray-extra.ico
      16, 20, 24, 32 and 48 px, 32-bit BGRA with alpha (plus the AND mask for old readers);
  banner.bmp, banner-scaled.bmp
      the internet-session banner at 96 DPI and its 150 % version, 24-bit.
The optional preview shows every icon at 16 and 48 px, actual size and magnified, on a light and
a dark background, so a person can check that they tell apart.
"""

import argparse
import math
import os
import struct
import zlib

ICON_SIZES = (16, 20, 24, 32, 48)
SUPERSAMPLE = 4  # samples per pixel and axis

# ---------------------------------------------------------------------------------------------
# Shapes, in a 16 x 16 design space: each answers whether a design-space point lies inside, and
# carries its bounding box so that painting only visits the pixels it can touch.


def bounded(inside, box):
    inside.bbox = box
    return inside


def rounded_rect(x0, y0, x1, y1, r):
    def inside(x, y):
        if x < x0 or x > x1 or y < y0 or y > y1:
            return False
        cx = min(max(x, x0 + r), x1 - r)
        cy = min(max(y, y0 + r), y1 - r)
        return (x - cx) ** 2 + (y - cy) ** 2 <= r * r
    return bounded(inside, (x0, y0, x1, y1))


def circle(cx, cy, r):
    return bounded(lambda x, y: (x - cx) ** 2 + (y - cy) ** 2 <= r * r, (cx - r, cy - r, cx + r, cy + r))


def polygon(points):
    def inside(x, y):
        hit = False
        n = len(points)
        for i in range(n):
            (xa, ya), (xb, yb) = points[i], points[(i + 1) % n]
            if (ya > y) != (yb > y) and x < xa + (y - ya) * (xb - xa) / (yb - ya):
                hit = not hit
        return hit
    xs, ys = [p[0] for p in points], [p[1] for p in points]
    return bounded(inside, (min(xs), min(ys), max(xs), max(ys)))


def stroke(points, width):
    """A polyline of the given width with round joins and caps."""
    half = width / 2.0

    def inside(x, y):
        for (xa, ya), (xb, yb) in zip(points, points[1:]):
            dx, dy = xb - xa, yb - ya
            t = ((x - xa) * dx + (y - ya) * dy) / (dx * dx + dy * dy)
            t = min(max(t, 0.0), 1.0)
            if (x - xa - t * dx) ** 2 + (y - ya - t * dy) ** 2 <= half * half:
                return True
        return False
    xs, ys = [p[0] for p in points], [p[1] for p in points]
    return bounded(inside, (min(xs) - half, min(ys) - half, max(xs) + half, max(ys) + half))


def union(*shapes):
    boxes = [s.bbox for s in shapes]
    return bounded(lambda x, y: any(s(x, y) for s in shapes),
                   (min(b[0] for b in boxes), min(b[1] for b in boxes),
                    max(b[2] for b in boxes), max(b[3] for b in boxes)))


def everywhere(x, y):
    return True


everywhere.bbox = (-1e9, -1e9, 1e9, 1e9)


# ---------------------------------------------------------------------------------------------
# Raster: premultiplied RGBA floats, layers composited "over".


def hex_rgb(text):
    return tuple(int(text[i:i + 2], 16) / 255.0 for i in (1, 3, 5))


class Canvas:
    def __init__(self, width, height, scale):
        self.w, self.h, self.scale = width, height, scale
        self.px = [[0.0, 0.0, 0.0, 0.0] for _ in range(width * height)]

    def fill(self, shape, colour, bottom=None, y_range=(0.0, 16.0), alpha=1.0):
        """Paints a shape; with `bottom` the colour runs vertically from `colour` to `bottom`."""
        top_c = hex_rgb(colour)
        bot_c = hex_rgb(bottom) if bottom else top_c
        n = SUPERSAMPLE
        x0, y0, x1, y1 = shape.bbox
        for py in range(max(0, int(y0 * self.scale)), min(self.h, int(y1 * self.scale) + 1)):
            for px in range(max(0, int(x0 * self.scale)), min(self.w, int(x1 * self.scale) + 1)):
                hits = 0
                for sy in range(n):
                    y = (py + (sy + 0.5) / n) / self.scale
                    for sx in range(n):
                        if shape((px + (sx + 0.5) / n) / self.scale, y):
                            hits += 1
                if not hits:
                    continue
                cover = alpha * hits / (n * n)
                yc = (py + 0.5) / self.scale
                t = min(max((yc - y_range[0]) / (y_range[1] - y_range[0]), 0.0), 1.0)
                rgb = [a + (b - a) * t for a, b in zip(top_c, bot_c)]
                d = self.px[py * self.w + px]
                for i in range(3):
                    d[i] = rgb[i] * cover + d[i] * (1.0 - cover)
                d[3] = cover + d[3] * (1.0 - cover)

    def rgba8(self):
        """Straight (not premultiplied) 8-bit RGBA rows, top row first."""
        rows = []
        for py in range(self.h):
            row = []
            for px in range(self.w):
                r, g, b, a = self.px[py * self.w + px]
                if a <= 0.0:
                    row.append((0, 0, 0, 0))
                    continue
                row.append(tuple(int(round(min(c / a, 1.0) * 255)) for c in (r, g, b))
                           + (int(round(a * 255)),))
            rows.append(row)
        return rows


# ---------------------------------------------------------------------------------------------
# The four tray icons: one monitor, told apart by screen colour and by the sign on the screen.

BEZEL = "#2f3439"
SCREEN = (1.2, 2.2, 14.8, 10.8)


class Place:
    """Scales by k and moves by (dx, dy): puts a 16 x 16 drawing somewhere on a larger canvas."""

    def __init__(self, k=1.0, dx=0.0, dy=0.0):
        self.k, self.dx, self.dy = k, dx, dy

    def __call__(self, shape):
        b = shape.bbox
        return bounded(lambda x, y: shape((x - self.dx) / self.k, (y - self.dy) / self.k),
                       (self.x(b[0]), self.y(b[1]), self.x(b[2]), self.y(b[3])))

    def x(self, v):
        return self.dx + v * self.k

    def y(self, v):
        return self.dy + v * self.k


def draw_monitor(c, face_top, face_bottom, place=Place()):
    c.fill(place(rounded_rect(0.2, 1.0, 15.8, 12.0, 1.4)), BEZEL)
    c.fill(place(rounded_rect(*SCREEN, 0.5)), face_top, face_bottom, (place.y(SCREEN[1]), place.y(SCREEN[3])))
    c.fill(place(rounded_rect(6.3, 11.5, 9.7, 13.6, 0.0)), BEZEL)
    c.fill(place(rounded_rect(3.2, 13.2, 12.8, 15.4, 0.9)), BEZEL)


def icon_idle(c, size):
    draw_monitor(c, "#d4d9de", "#8e979f")


def icon_connected(c, size, place=Place()):
    draw_monitor(c, "#49d26a", "#16923a", place)
    c.fill(place(stroke([(4.4, 6.6), (7.0, 9.0), (11.8, 3.9)], 2.0)), "#ffffff")


def icon_pending(c, size):
    draw_monitor(c, "#ffd04a", "#e88a00")
    ink = "#3b2500"
    c.fill(union(rounded_rect(4.9, 2.9, 11.1, 3.9, 0.3), rounded_rect(4.9, 9.1, 11.1, 10.1, 0.3)), ink)
    c.fill(union(polygon([(5.6, 3.6), (10.4, 3.6), (8.0, 6.5)]),
                 polygon([(8.0, 6.5), (10.4, 9.4), (5.6, 9.4)])), ink)


def icon_extra(c, size):
    draw_monitor(c, "#5aa8ff", "#1c5fc4")
    c.fill(circle(12.0, 11.6, 4.3), "#ffffff")
    c.fill(circle(12.0, 11.6, 3.4), "#ff7a1a", "#d9400b", (8.2, 15.0))
    if size < 32:
        return  # below 32 px a plus reads as a smudge; the plain dot is the clearer badge
    c.fill(union(rounded_rect(11.0, 9.6, 13.0, 13.6, 0.2), rounded_rect(10.0, 10.6, 14.0, 12.6, 0.2)),
           "#ffffff")


ICONS = (
    ("tray-idle.ico", icon_idle),
    ("tray-connected.ico", icon_connected),
    ("tray-pending.ico", icon_pending),
    ("tray-extra.ico", icon_extra),
)


def render_icon(draw, size):
    c = Canvas(size, size, size / 16.0)
    draw(c, size)
    return c.rgba8()


# ---------------------------------------------------------------------------------------------
# File formats.


def ico_bytes(images):
    """images: list of (size, rgba rows). Each image is a DIB: BGRA bottom-up, then the AND mask."""
    blobs = []
    for size, rows in images:
        header = struct.pack("<IiiHHIIiiII", 40, size, size * 2, 1, 32, 0, 0, 0, 0, 0, 0)
        colour = bytearray()
        mask = bytearray()
        mask_stride = ((size + 31) // 32) * 4
        for row in reversed(rows):
            bits = bytearray(mask_stride)
            for x, (r, g, b, a) in enumerate(row):
                colour += bytes((b, g, r, a))
                if a == 0:
                    bits[x // 8] |= 0x80 >> (x % 8)
            mask += bits
        blobs.append((size, header + colour + mask))
    out = bytearray(struct.pack("<HHH", 0, 1, len(blobs)))
    offset = 6 + 16 * len(blobs)
    for size, blob in blobs:
        out += struct.pack("<BBBBHHII", size % 256, size % 256, 0, 0, 1, 32, len(blob), offset)
        offset += len(blob)
    for _, blob in blobs:
        out += blob
    return bytes(out)


def bmp_bytes(rows):
    """24-bit bottom-up BMP of opaque RGB rows."""
    h, w = len(rows), len(rows[0])
    stride = (w * 3 + 3) & ~3
    pixels = bytearray()
    for row in reversed(rows):
        line = bytearray()
        for r, g, b in row:
            line += bytes((b, g, r))
        pixels += line + bytes(stride - len(line))
    info = struct.pack("<IiiHHIIiiII", 40, w, h, 1, 24, 0, len(pixels), 3780, 3780, 0, 0)
    head = struct.pack("<2sIHHI", b"BM", 14 + len(info) + len(pixels), 0, 0, 14 + len(info))
    return head + info + bytes(pixels)


def png_bytes(rows):
    h, w = len(rows), len(rows[0])
    raw = b"".join(b"\x00" + bytes(v for px in row for v in px) for row in rows)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 6, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


# ---------------------------------------------------------------------------------------------
# The banner: the dialogs' blue gradient, a connected monitor and a few signal arcs.


def render_banner(width, height):
    scale = height / 16.0
    c = Canvas(width, height, scale)
    design_w = width / scale
    c.fill(everywhere, "#ddedfe", "#81a9e2", (0.0, 16.0))
    c.fill(rounded_rect(0.0, 15.2, design_w, 16.0, 0.0), "#4a78c0")
    icon_connected(c, height, Place(0.7, 1.2, 2.4))
    # Signal arcs going out to the right of the monitor.
    cx, cy = 13.5, 7.0
    for i, radius in enumerate((2.2, 3.6, 5.0)):
        def arc(x, y, r=radius):
            d = math.hypot(x - cx, y - cy)
            return abs(d - r) <= 0.35 and x > cx and abs(y - cy) < (x - cx) * 1.1
        c.fill(bounded(arc, (cx, cy - radius - 0.5, cx + radius + 0.5, cy + radius + 0.5)), "#ffffff",
               alpha=0.9 - 0.2 * i)
    # A faint band of dots fading towards the right edge.
    for i in range(int(design_w // 2.0)):
        x = 22.0 + i * 2.0
        if x > design_w - 1.0:
            break
        c.fill(circle(x, 12.5, 0.35), "#ffffff", alpha=max(0.1, 0.6 - i * 0.02))
    return [[px[:3] for px in row] for row in c.rgba8()]


# ---------------------------------------------------------------------------------------------
# Preview sheet.


def blit(sheet, rows, left, top, zoom, background):
    for y, row in enumerate(rows):
        for x, (r, g, b, a) in enumerate(row):
            al = a / 255.0
            px = tuple(int(round(v * al + bg * (1.0 - al))) for v, bg in zip((r, g, b), background))
            for dy in range(zoom):
                line = sheet[top + y * zoom + dy]
                for dx in range(zoom):
                    line[left + x * zoom + dx] = px + (255,)


def preview(icons):
    """icons: list of {size: rows}. Columns: icons; rows: 16 px x8, 48 px x2, and actual sizes."""
    light, dark = (240, 240, 240), (32, 32, 36)
    cell = 140
    width, height = cell * len(icons), 140 + 108 + 60 + 60
    sheet = [[light + (255,) for _ in range(width)] for _ in range(height)]
    for y in range(height - 60, height):
        sheet[y] = [dark + (255,) for _ in range(width)]
    for i, images in enumerate(icons):
        left = i * cell
        blit(sheet, images[16], left + 6, 6, 8, light)
        blit(sheet, images[48], left + 22, 146, 2, light)
        for bg, top in ((light, 254), (dark, height - 54)):
            blit(sheet, images[16], left + 20, top + 16, 1, bg)
            blit(sheet, images[48], left + 60, top, 1, bg)
    return sheet


def write(path, data):
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("outdir")
    parser.add_argument("--preview", help="also write a PNG sheet of all icons")
    args = parser.parse_args()
    os.makedirs(args.outdir, exist_ok=True)

    rendered = []
    for name, draw in ICONS:
        images = {size: render_icon(draw, size) for size in ICON_SIZES}
        rendered.append(images)
        write(os.path.join(args.outdir, name), ico_bytes([(s, images[s]) for s in ICON_SIZES]))

    # Wider than any dialog that shows them: the dialog clips the plain right end, whatever width
    # the dialog font gives the dialog (240 units are 360 pixels with one font, 420 with another).
    write(os.path.join(args.outdir, "banner.bmp"), bmp_bytes(render_banner(480, 60)))
    write(os.path.join(args.outdir, "banner-scaled.bmp"), bmp_bytes(render_banner(720, 90)))

    if args.preview:
        write(args.preview, png_bytes(preview(rendered)))


if __name__ == "__main__":
    main()
