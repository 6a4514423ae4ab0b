"""The one error the tools raise for input they cannot use."""


class InputError(Exception):
    """An unusable input, told as 'FILE line N: what is wrong' (line optional)."""

    def __init__(self, path, message, line=None):
        self.path, self.line, self.message = str(path), line, message
        where = self.path if line is None else f"{self.path} line {line}"
        super().__init__(f"{where}: {message}")


def one_line(error):
    """An InputError or OSError as the one line a tool prints: PATH: reason."""
    if isinstance(error, OSError) and error.filename is not None:
        return f"{error.filename}: {error.strerror}"
    return str(error)
