"""Block widths for the listed patch records of Q5.in: `count` cells in
blocks of `size`, the remainder in a last, narrower block."""


def blocks(count, size):
    widths = [size] * (count // size)
    if count % size:
        widths.append(count % size)
    return widths
