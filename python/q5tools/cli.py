"""What the four commands share: a parser whose usage errors end with exit
status 1 like every other refusal, and the one way a refused input or an
unusable path ends a command: one line naming the tool, the file (and the
line where there is one), exit status 1, never a traceback."""
import argparse
import functools
import sys

from .errors import InputError, one_line


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.print_usage(sys.stderr)
        self.exit(1, f"{self.prog}: error: {message}\n")


def command(prog):
    """Wraps a command's main(argv): an InputError or OSError from anywhere
    in it becomes 'PROG: PATH[ line N]: reason' on stderr and status 1."""
    def wrap(main):
        @functools.wraps(main)
        def run(argv=None):
            try:
                return main(argv)
            except (InputError, OSError) as e:
                print(f"{prog}: {one_line(e)}", file=sys.stderr)
                return 1
        return run
    return wrap
