"""The exceptions of zelmgrid. Every failure of the library reaches Python as one of these."""


class Error(Exception):
    """A file could not be read, written or recognised.

    ``str(e)`` is the library's one-line message; ``e.file`` is the path the call was given.
    """

    file = None


class ReadError(Error):
    """A file's bytes do not hold what the call asked for: truncated, damaged, or of another kind,
    encoding or precision.

    The message locates the failure: the file, its encoding, the record (or line) and what it holds
    (``zone 2 face 17``), the byte offset of the statement and the cause. ``record``, ``offset`` and
    ``cause`` carry those parts when the library located the failure, and are None otherwise.
    """

    record = None
    offset = None
    cause = None


class IOError(Error, OSError):  # noqa: A001 - the package's own, also an OSError
    """The operating system refused: a missing file, no permission, a full disk."""
