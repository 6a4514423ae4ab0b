"""Parameter blocks and inverse settings of the examples' Q5.in files."""


def blocks(count, size):
    """Block widths for the listed patch records: `count` cells in blocks of
    `size`, the remainder in a last, narrower block."""
    widths = [size] * (count // size)
    if count % size:
        widths.append(count % size)
    return widths


def inverse_records(cells, rho_start, bx, by, wrap):
    """Records 5 to 8 of an inverse job on a grid of `cells` cells: a uniform
    start of rho_start ohm m, the listed blocks bx, by, then log data with a
    3 % relative error, linear filter, fixed weights, tolerance 1, at most 8
    iterations."""
    return [f"1\n1 {cells} {rho_start}        uniform {rho_start} ohm m start",
            "0 0        parameter blocks listed",
            f"{len(bx)} {len(by)}",
            "1 " + wrap(bx), "1 " + wrap(by),
            "1 0.0        linear filter",
            "1 0        log data, normal regularisation",
            "1.0 8 0 1.0        tolerance, iterations, fixed weights, isotropic",
            "0.0 0.03 0.1 100000        3 % relative error"]
