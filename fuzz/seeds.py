#!/usr/bin/python3
"""Seed inputs of the fuzz targets, and the way back from an input to a run
directory of q5.

  seeds.py make OUTDIR          writes OUTDIR/<target>/<name> for every target
  seeds.py unpack TARGET INPUT DIR
                                writes the files of one input of TARGET into
                                DIR, with the target's fixed files, so that
                                the real q5 can be run there

An input of the control, mesh, start_model and protocol targets is one file
(Q5.in, mesh.dat, start.dat, protocol.dat) followed by optional sections,
each opened by a line "%% NAME" (see harness.h). The seeds come from
examples/ and from the kinds of input the end-to-end tests write: small
grids and triangle meshes, every inverse type, and wrong counts, truncated
records, nulls and slashes.
"""
import os
import re
import sys

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EX = os.path.join(TOP, "examples")

# The fixed files of each target (kept equal to the *_fuzz.cpp sources).
FIRST = {"control": "Q5.in", "mesh": "mesh.dat", "start_model": "start.dat",
         "protocol": "protocol.dat"}


def fixed_files(target):
    src = open(os.path.join(TOP, "fuzz", target + "_fuzz.cpp")).read()
    files = {}
    # const char* kName = "..." "...";  with the file named in the defaults
    consts = {}
    for m in re.finditer(r'const char\* (k\w+) =\s*((?:"(?:[^"\\]|\\.)*"\s*)+);', src):
        parts = re.findall(r'"((?:[^"\\]|\\.)*)"', m.group(2))
        consts[m.group(1)] = "".join(parts).encode().decode("unicode_escape")
    for m in re.finditer(r'\{"([^"]+)", (k\w+)\}', src):
        files[m.group(1)] = consts[m.group(2)]
    return files


def read(path):
    return open(path, encoding="latin-1").read()


def no_polyline(control):
    """The control file with its polyline record replaced by 0 (write all
    elements), so that a seed stays within the targets' -max_len."""
    lines = control.split("\n")
    for k, l in enumerate(lines):
        if "polyline" in l:
            n = int(l.split()[0])
            return "\n".join(lines[:k] + ["0        polyline: none"] + lines[k + 1 + n:])
    return control


def sections(first, extra):
    text = first
    for name, data in extra:
        if not text.endswith("\n"):
            text += "\n"
        text += "%% " + name + "\n" + data
    return text


# ---- small inputs like those of the end-to-end tests ------------------------

GRID = "5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n"
REG = "1\n1 8 100.0\n"
ELEC = "4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n"
SET = "1 0.0\n1 0\n1.0 3 0 1.0\n0.0 0.03 1e-6 1e9\n"
PF = "2\n1 1 2 3 4\n2 1 3 2 4\n"
PI = "3\n1 1 2 3 4 0.05\n2 1 3 2 4 -0.02\n3 4 3 2 1 0.04\n"


def fwd(grid=GRID, reg=REG, poly="0\n", elec=ELEC, rec2="0 4 3.0 0 0"):
    return "Forward\n" + rec2 + "\n" + grid + reg + poly + elec


def inv(grid=GRID, reg=REG, patch="1 1\n", sets=SET, poly="0\n", elec=ELEC, rec2="1 4 3.0 0 0"):
    return "Inverse\n" + rec2 + "\n" + grid + reg + patch + sets + poly + elec


def tri_mesh(nx=4, ny=3):
    nodes = [(i, -j) for i in range(nx) for j in range(ny)]
    els = []
    for i in range(nx - 1):
        for j in range(ny - 1):
            a, b = i * ny + j + 1, (i + 1) * ny + j + 1
            els += [(a, b, b + 1), (a, b + 1, a + 1)]
    s = "%d %d\n" % (len(els), len(nodes))
    s += "".join("%d %d %d %d %d 1\n" % (k + 1, a, b, c, k + 1) for k, (a, b, c) in enumerate(els))
    s += "".join("%d %g %g\n" % (k + 1, x, y) for k, (x, y) in enumerate(nodes))
    return s, len(els)


MESH, ME = tri_mesh()
MESH_FWD = "Mesh forward\n0 3 3.0 1 0\n1.0\n1\n1 %d 100\n0\n4\n1 1\n2 4\n3 7\n4 10\n" % ME
MESH_INV = "Mesh inverse\n1 3 3.0 1 2\n1.0\n1\n1 %d 100\n" % ME + SET + "0\n4\n1 1\n2 4\n3 7\n4 10\n"
G9 = "9 4\n0 1 2 3 4 5 6 7 8\n9*0\n0 1 2 3\n"
REG9 = "1\n1 24 100\n"
E9 = "4\n1 2 1\n2 3 1\n3 4 1\n4 5 1\n"
S4 = "4 0.0\n1 0\n1.0 3 0 1.0\n0.0 0.03 1e-6 1e9\n"
START = "".join("0 0 %d\n" % (10 * (k + 1)) for k in range(8))


def real_mesh_piece(nodes_kept=110):
    """Elements of the slag dump's field mesh whose nodes are all among the
    first `nodes_kept`, renumbered, with those nodes: real formatting."""
    lines = read(os.path.join(EX, "field", "slagdump", "mesh.dat")).split("\n")
    ne, nn = map(int, lines[0].split())
    els = []
    for l in lines[1:1 + ne]:
        v = l.split()
        if all(int(x) <= nodes_kept for x in v[1:4]):
            els.append(v)
    out = "%d %d\n" % (len(els), nodes_kept)
    out += "".join("%d %s %s %s %d %s\n" % (k + 1, v[1], v[2], v[3], k + 1, v[5]) for k, v in enumerate(els))
    out += "\n".join(lines[1 + ne:1 + ne + nodes_kept]) + "\n"
    return out, len(els)


def control_seeds():
    s = {}
    s["fwd_grid"] = fwd()
    s["fwd_grid5"] = fwd(grid="5 3\n0 1 2 3 4\n0 1 2\n/\n0 1.5 /\n,,3\n0 1 2\n", rec2="0 5 3.0 0 0")
    s["fwd_repeat"] = fwd(grid="5 3\n0 4*1\n5*0\n3*2\n")
    s["fwd_poly"] = fwd(poly="5\n0.5 1\n3.5 1\n3.5 -3\n0.5 -3\n0.5 1\n")
    s["fwd_poly_open"] = fwd(poly="3\n0 1\n4 1\n4 -3\n")
    s["fwd_poly_count"] = fwd(poly="100000000\n0 0\n4 0\n")
    s["fwd_elec_count"] = fwd(elec="100000000\n1 1 1\n2 2 1\n")
    s["fwd_elec_range"] = fwd(elec="2\n1 1 1\n2 9 0\n")
    s["fwd_regions"] = fwd(reg="3\n1 8 100\n2 3 50\n9 1 5\n")
    s["fwd_grid_count"] = fwd(grid="100000000 1\n0 1 2\n")
    s["fwd_grid_guard"] = fwd(grid="40000 40000\n0 1\n")
    s["inv_grid"] = inv()
    s["inv_start"] = sections(inv(reg="0\nstart.dat\n"), [("start.dat", START)])
    s["inv_patch_list"] = inv(grid=G9, reg=REG9, elec=E9, patch="0 0\n2 2\n1 3 4\n1 1 2\n")
    s["inv_patch_slash"] = inv(grid=G9, reg=REG9, elec=E9, patch="0 0\n3 2\n1 3 /\n1 1 2\n")
    s["inv_patch_count"] = inv(grid=G9, reg=REG9, elec=E9, patch="0 0\n100000000 1\n1 3 4\n1 1 2\n")
    s["inv_patch_uniform"] = inv(grid=G9, reg=REG9, elec=E9, patch="2 3\n")
    s["inv_blocked"] = inv(grid=G9, reg=REG9, elec=E9, patch="0 0\n2 3\n1 3 4\n1 1 1 1\n",
                           sets=S4 + "1 2\n/\n3 ,,\n")
    s["inv_blocked_count"] = inv(grid=G9, reg=REG9, elec=E9, patch="0 0\n2 30000000\n1 3 4\n1 30000000*0\n",
                                 sets=S4 + "1 2\n")
    s["inv_qualitative"] = inv(sets="3 0.0\n1\n1e-6 1e9\n")
    s["inv_joint"] = inv(sets="2 0.1\n0 1\n1.0 3 1 1.0 0.5\n0.0 0.03 1e-6 1e9\n")
    s["inv_difference"] = inv(sets="1 0.0\n0 2\n1.0 3 0 1.0\n0.0 0.0 1e-6 1e9\n")
    s["inv_bad_settings"] = inv(sets="1 0.0\n1 0\n1.0 3 0 0.0\n0.0 0.03 1e9 1e-6\n")
    s["mesh_fwd"] = sections(MESH_FWD, [("mesh.dat", MESH)])
    s["mesh_inv"] = sections(MESH_INV, [("mesh.dat", MESH)])
    piece, pe = real_mesh_piece()
    slag = read(os.path.join(EX, "field", "slagdump", "Q5.in")).replace("1 5076 11.252", "1 %d 11.252" % pe)
    slag = no_polyline(slag)
    s["field_slagdump"] = sections(slag, [("mesh.dat", piece)])
    s["example_slagdump"] = read(os.path.join(EX, "slagdump", "Q5.in"))
    for d in ("bedrock", "crosshole/run", "pole-dipole/run", "xochimilco", "mulda-hillslope/reference"):
        s["field_" + d.split("/")[0]] = read(os.path.join(EX, "field", d, "Q5.in"))
    return s


def mesh_seeds():
    s = {}
    lines = MESH.split("\n")
    body = "\n".join(lines[1:])
    s["small"] = MESH
    s["counts_huge"] = "50000000 12\n" + body
    s["nodes_huge"] = "%d 50000000\n" % ME + body
    s["counts_short"] = "%d 14\n" % (ME + 2) + body
    for name, k, rec in (("node_range", 3, "3 1 2 99 3 1"), ("elem_range", 3, "99 1 2 3 3 1"),
                         ("elem_missing", 3, "2 1 2 3 3 1"), ("slash", 2, "2 /"),
                         ("nulls", 4, "4 ,, 9 ,, 1"), ("param_large", 5, "5 7 8 11 40 1"),
                         ("param_negative", 5, "5 7 8 11 -3 1"), ("noderec", ME + 3, "0 1 1")):
        bad = lines[:]
        bad[k] = rec
        s[name] = "\n".join(bad)
    s["truncated"] = MESH[:len(MESH) // 2]
    piece, _ = real_mesh_piece()
    s["field_piece"] = piece
    s["field_piece_with_control"] = sections(piece, [("Q5.in", MESH_INV.replace("1 %d 100" % ME, "1 1 100"))])
    return s


def start_seeds():
    s = {}
    s["eight"] = START
    s["short"] = START[:30]
    s["slash_nulls"] = "0 0 10\n/\n1 1\n0 0 ,, \n0 0 5\n0 0 -1\n0 0 0\n0 0 7\n"
    s["exponents"] = "".join("%.5E %.5E %.5E %.5E\n" % (k, -k, 10.0 ** (k - 3), k) for k in range(8))
    real = read(os.path.join(EX, "field", "mulda-hillslope", "start_res.dat")).split("\n")
    s["field_lines"] = "\n".join(real[:8]) + "\n"
    s["repeat"] = "3*0 100\n0 0 1e2\n8*1\n0,0,3\n0 0 4\n0 0 5\n0 0 6\n0 0 7\n"
    return s


def protocol_seeds():
    s = {}
    s["errors_from_file"] = "3\n1 1 2 3 4 0.05 0.01\n2 1 3 2 4 -0.02 0.002\n3 4 3 2 1 0.04 0\n0\n"
    s["two_blocks"] = "2\n1 1 2 3 4 0.05 0.01\n2 1 3 2 4 -0.02 0.01\n2\n1 1 2 3 4 0.06 0.01\n2 1 3 2 4 -0.03 0.01\n"
    s["head_huge"] = "99999999\n1 1 2 3 4 0.05 0.01\n2 1 3 2 4 0.02 0.01\n"
    s["head_guard"] = "2000000000\n1 1 2 3 4 0.05 0.01\n"
    s["bad_items"] = "4\n1 1 2 3 4 abc\n2 /\n3 4 3 2 1 0.04 0.01\n4 , , 1 2 0.03\n"
    s["duplicate"] = "2\n1 1 1 3 4 0.05 0.01\n"
    s["unknown_electrode"] = "2\n1 1 2 3 9 0.05 0.01\n"
    s["truncated"] = "3\n1 1 2 3 4 0.05 0.01\n2 1 3"
    s["forward"] = sections(PF, [("Q5.in", fwd())])
    s["forward_head_huge"] = sections("99999999\n1 1 2 3 4\n2 1 3 2 4\n", [("Q5.in", fwd())])
    s["relative_errors"] = sections(PI, [("Q5.in", inv())])
    s["log_data_zero"] = sections("3\n1 1 2 3 4 0.0\n2 1 3 2 4 -0.02\n3 4 3 2 1 1e30\n",
                                  [("Q5.in", inv(sets="1 0.0\n1 0\n1.0 3 0 1.0\n0.0 0.03 1e-6 1e9\n"))])
    s["difference"] = sections("3\n1 1 2 3 4 0.05 0.04 0.01\n2 1 3 2 4 -0.02 -0.02 0.01\n3 4 3 2 1 0.04 0.05 0.01\n",
                               [("Q5.in", inv(sets="1 0.0\n0 2\n1.0 3 0 1.0\n0.0 0.0 1e-6 1e9\n"))])
    s["qualitative"] = sections(PI, [("Q5.in", inv(sets="3 0.0\n1\n1e-6 1e9\n"))])
    s["mesh"] = sections(PI, [("Q5.in", MESH_INV), ("mesh.dat", MESH)])
    slag_in = no_polyline(read(os.path.join(EX, "slagdump", "Q5.in")))
    slag_data = read(os.path.join(EX, "slagdump", "protocol.dat")).split("\n")
    s["example_slagdump"] = sections("\n".join(slag_data[:7]).replace(slag_data[0], "6", 1) + "\n",
                                     [("Q5.in", slag_in)])
    return s


def textio_seeds():
    # The first half of an input drives the script, the second is the file.
    s = {}
    files = ["1 2 3\n4.5 -6e7 3*2\n,, /\nabc\n", "3*\n1,2,,4\n2*1.5d0 1e+ 7 -inf nan\n",
             read(os.path.join(EX, "slagdump", "Q5.in"))[:400], PF + PI]
    scripts = [b"I5 'x' F8.3, E12.4 / A, 2X A3$", b"F0.0 E1.0 I0 I3.3 A\x00\x05\x01\x07\x03",
               b"3F12.3 1X 'Processing' I3 /\x02\x10\x00\x20", b"E15.5\x06\x00\x01\x02\x03\x04\x05"]
    for k, (sc, f) in enumerate(zip(scripts, files)):
        sc = sc.ljust(len(f), b"\x01")
        s["script%d" % k] = sc + f.encode()
    return s


# The targets' -max_len (fuzz/run.sh).
MAX_LEN = 4096

MAKERS = {"control": control_seeds, "mesh": mesh_seeds, "start_model": start_seeds,
          "protocol": protocol_seeds, "textio": textio_seeds}


def make(outdir):
    for target, maker in MAKERS.items():
        d = os.path.join(outdir, target)
        os.makedirs(d, exist_ok=True)
        for name, data in maker().items():
            if len(data) > MAX_LEN:
                sys.exit("seed %s/%s has %d bytes, more than %d" % (target, name, len(data), MAX_LEN))
            mode = "wb" if isinstance(data, bytes) else "w"
            with open(os.path.join(d, name), mode, **({} if mode == "wb" else {"encoding": "latin-1"})) as f:
                f.write(data)


def unpack(target, path, outdir):
    data = open(path, "rb").read().decode("latin-1")
    files = {}
    name, text = FIRST[target], []
    for line in data.splitlines(keepends=True):
        if line.startswith("%% "):
            files[name] = "".join(text)
            name, text = line[3:].rstrip("\n"), []
        else:
            text.append(line)
    files[name] = "".join(text)
    for n, d in fixed_files(target).items():
        files.setdefault(n, d)
    os.makedirs(outdir, exist_ok=True)
    for n, d in files.items():
        if "/" in n or n in ("", ".", ".."):
            continue
        with open(os.path.join(outdir, n), "w", encoding="latin-1", newline="") as f:
            f.write(d)
    print("\n".join(sorted(files)))


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "make":
        make(sys.argv[2])
    elif len(sys.argv) == 5 and sys.argv[1] == "unpack" and sys.argv[2] in FIRST:
        unpack(sys.argv[2], sys.argv[3], sys.argv[4])
    else:
        sys.exit(__doc__)
