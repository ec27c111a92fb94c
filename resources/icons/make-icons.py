#!/usr/bin/env python3
"""Draws velko's application icon (a prompt chevron and cursor on a dark tile)
into AppIcon.png (512 px) and the hicolor sizes. Standard library only, so it
runs anywhere: ./make-icons.py from this folder."""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
SS = 4  # supersampling per axis


def inside_rounded(x, y, size, radius):
    cx = min(max(x, radius), size - radius)
    cy = min(max(y, radius), size - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def dist_to_segment(px, py, ax, ay, bx, by):
    dx, dy = bx - ax, by - ay
    t = max(0.0, min(1.0, ((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy)))
    qx, qy = ax + t * dx, ay + t * dy
    return ((px - qx) ** 2 + (py - qy) ** 2) ** 0.5


def sample(u, v):
    """Colour (r, g, b, a) at unit coordinates u, v in [0, 1)."""
    if not inside_rounded(u, v, 1.0, 0.2):
        return (0, 0, 0, 0)
    # The tile: the window's near-black, a little lighter towards the top.
    shade = 1.0 - v
    r, g, b = 12 + 22 * shade, 14 + 26 * shade, 24 + 40 * shade
    # A thin lighter rim.
    if not inside_rounded(u - 0.012, v - 0.012, 0.976, 0.19):
        r, g, b = 60, 70, 100
    w = 0.055  # stroke half width
    chevron = min(dist_to_segment(u, v, 0.25, 0.30, 0.47, 0.50), dist_to_segment(u, v, 0.47, 0.50, 0.25, 0.70))
    if chevron <= w:
        return (92, 214, 255, 255)
    if 0.54 <= u <= 0.78 and 0.64 <= v <= 0.72:
        return (255, 184, 76, 255)
    return (int(r), int(g), int(b), 255)


def render(size):
    rows = []
    for y in range(size):
        row = bytearray([0])
        for x in range(size):
            acc = [0, 0, 0, 0]
            for sy in range(SS):
                for sx in range(SS):
                    c = sample((x + (sx + 0.5) / SS) / size, (y + (sy + 0.5) / SS) / size)
                    a = c[3]
                    acc[0] += c[0] * a
                    acc[1] += c[1] * a
                    acc[2] += c[2] * a
                    acc[3] += a
            n = SS * SS
            alpha = acc[3] / n
            if acc[3] > 0:
                row += bytes((int(acc[0] / acc[3]), int(acc[1] / acc[3]), int(acc[2] / acc[3]), int(alpha)))
            else:
                row += bytes((0, 0, 0, 0))
        rows.append(bytes(row))
    return rows


def write_png(path, size, rows):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)
    data = zlib.compress(b"".join(rows), 9)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", data) + chunk(b"IEND", b""))


if __name__ == "__main__":
    write_png(os.path.join(HERE, "..", "AppIcon.png"), 512, render(512))
    for size in (16, 24, 32, 48, 64, 128, 256, 512):
        write_png(os.path.join(HERE, "hicolor", f"{size}x{size}", "apps", "velko.png"), size, render(size))
