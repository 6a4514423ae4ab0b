"""q5-import FILE... -o DIR: a field file (or several of one survey) to a run
directory for q5."""
from .cli import Parser, command
from .importer import import_run
from .options import ImportOptions, add_options, from_args

PROG = "q5-import"


def add_import_arguments(p):
    """The field files, the run directory and the import options."""
    p.add_argument("files", nargs="+", metavar="FILE",
                   help="field files: unified data format, Syscal Pro text export or Res2DInv data file"
                        " (recognised by their content)")
    p.add_argument("-o", "--output", required=True, metavar="DIR", help="run directory to write")
    p.add_argument("--force", action="store_true", help="replace DIR if it exists")
    add_options(p, ImportOptions)


@command(PROG)
def main(argv=None):
    p = Parser(prog=PROG, description="Write Q5.in and protocol.dat for q5 from field files.")
    add_import_arguments(p)
    args = p.parse_args(argv)
    _, lines = import_run(args.files, args.output, from_args(ImportOptions, args), force=args.force)
    for line in lines:
        print(line)
    print(f"run directory: {args.output}")
    return 0
