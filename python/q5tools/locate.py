"""Where the tools find the q5 program."""
import os
import shutil
import sys

from .errors import InputError


def find_q5(given, prog):
    """q5 from the option, else beside the running command (installed: the
    same bin; source tree: python/bin/../../build/q5), else on PATH. An
    absolute path, since runs start in other directories."""
    if given:
        if not (os.path.isfile(given) and os.access(given, os.X_OK)):
            raise InputError(given, "is not an executable q5")
        return os.path.abspath(given)
    here = os.path.dirname(os.path.realpath(sys.argv[0]))
    for path in (os.path.join(here, "q5"), os.path.join(here, "..", "..", "build", "q5")):
        if os.path.isfile(path) and os.access(path, os.X_OK):
            return os.path.abspath(path)
    found = shutil.which("q5")
    if not found:
        raise InputError("q5", f"not found beside {prog} nor on PATH (give --q5 PATH)")
    return os.path.abspath(found)
