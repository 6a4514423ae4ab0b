#!/usr/bin/env python3
"""Turns a forward job's Q5_forward.dat into the protocol.dat of an inverse
job: each transfer resistance with Gaussian noise of a given relative size
from a fixed seed, so that the example's data are the same on every run.

usage: noisy_data.py Q5_forward.dat protocol.dat [relative_noise [seed]]"""
import random
import sys


def main(argv):
    if len(argv) < 3:
        sys.exit(__doc__)
    noise = float(argv[3]) if len(argv) > 3 else 0.03
    rng = random.Random(int(argv[4]) if len(argv) > 4 else 20261123)
    rows = [line.split() for line in open(argv[1])][1:]
    with open(argv[2], "w") as out:
        out.write(f"{len(rows)}\n")
        for i, r in enumerate(rows, 1):
            value = float(r[5]) * (1.0 + noise * rng.gauss(0.0, 1.0))
            out.write(f"{i} {r[1]} {r[2]} {r[3]} {r[4]} {value:.8e}\n")


if __name__ == "__main__":
    main(sys.argv)
