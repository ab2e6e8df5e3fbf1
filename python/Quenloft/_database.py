# SPDX-License-Identifier: MIT
"""What the journals have in common: an SQLite file of rows that are added and never changed.

``header`` holds a JSON value for each key, ``entries`` the rows by their number. Each row is sealed
with a checksum of itself and of the seal before it, the first one's being that of the header: what
was damaged or changed in between is noticed when the file is read.

The file is in write-ahead mode with full synchronisation where the file system allows it: each row
is on the disk when it was added, one wait for the disk each, and others may read meanwhile.
"""

from __future__ import annotations

import json
import os
import sqlite3
from contextlib import closing, contextmanager
from dataclasses import dataclass
from hashlib import sha256
from pathlib import Path as _Path
from typing import Any, Callable, Iterator, Optional, Sequence, Union

from ._errors import JournalError

Path = Union[str, "os.PathLike[str]"]


@dataclass(frozen=True)
class Kind:
    """What a journal is of."""

    name: str
    #: Marks the file, so that no other database is mistaken for one.
    application_id: int
    format: int


class Database:
    """A journal that is open for writing.

    Parameters
    ----------
    path : path
        Of the file, which is made if there is none.
    kind : Kind
    header : dict
        What the rows belong to; `check` is given the recorded one.
    columns : sequence of str
        SQL declarations of the columns of a row, without number and seal.
    check : callable
        Raises JournalError if the recorded header is of something else; nothing is changed then.

    Raises
    ------
    JournalError
        The file is damaged, in use or no such journal; from `append`, it cannot be written.
    """

    def __init__(
        self,
        path: Path,
        kind: Kind,
        header: dict[str, Any],
        columns: Sequence[str],
        check: Callable[[dict[str, Any]], None],
    ) -> None:
        self.path = _text(path)
        if not self.path:
            raise JournalError("a journal needs the path of a file, not ''")
        # With its directory, no name has a meaning of its own to SQLite (":memory:", "file:...").
        place = os.path.abspath(self.path)
        self._kind = kind
        #: What the file held when it was opened.
        self.rows: list[Any] = []
        # Identity and least size of the files while they are written.
        self._files: dict[str, tuple[Any, int]] = {place: (None, 0), place + "-wal": (None, 0)}
        with _failures(self.path, "cannot be used as a journal"):
            self._database = sqlite3.connect(place, isolation_level=None)
        try:
            with _failures(self.path, "cannot be used as a journal"):
                self._open(header, columns, check)
        except BaseException:
            self._database.close()
            raise

    def _open(
        self,
        header: dict[str, Any],
        columns: Sequence[str],
        check: Callable[[dict[str, Any]], None],
    ) -> None:
        database = self._database
        if not _is_new(database):
            # Before anything is changed: it may be some other database.
            check(_read_header(database, self.path, self._kind)[0])
        database.execute("PRAGMA journal_mode = WAL")
        database.execute("PRAGMA synchronous = FULL")
        # A lock for the decision whether the journal is new; two runs may start at once.
        database.execute("BEGIN IMMEDIATE")
        if _is_new(database):
            database.execute(f"PRAGMA application_id = {self._kind.application_id}")
            database.execute(f"PRAGMA user_version = {self._kind.format}")
            database.execute("CREATE TABLE header (key TEXT PRIMARY KEY, value TEXT NOT NULL)")
            texts = sorted((key, json.dumps(value)) for key, value in header.items())
            texts.append(("seal", json.dumps(_seal("", texts))))
            database.executemany("INSERT INTO header VALUES (?, ?)", texts)
            names = ("number INTEGER PRIMARY KEY", *columns, "seal TEXT NOT NULL")
            database.execute(f"CREATE TABLE entries ({', '.join(names)})")
        database.execute("COMMIT")
        recorded, seal = _read_header(database, self.path, self._kind)
        check(recorded)
        for *row, newest_seal in _sealed_rows(database, self.path, seal):
            self.rows.append(tuple(row[1:]))
            seal = newest_seal
        self._seal = seal
        self._count = len(self.rows)
        self._insertion = f"INSERT INTO entries VALUES ({', '.join('?' * (len(columns) + 2))})"

    def append(self, *row: Any) -> None:
        """Put a row on the disk."""
        numbered = (self._count, *row)
        seal = _seal(self._seal, numbered)
        try:
            with _failures(self.path, "cannot be written"):
                self._database.execute(self._insertion, (*numbered, seal))
        except JournalError as error:
            if isinstance(error.__cause__, sqlite3.IntegrityError):
                raise JournalError(
                    f"the journal {self.path!r} is being written by another {self._kind.name}"
                ) from None
            raise
        self._count += 1
        self._seal = seal
        self._look_at_files()

    def _look_at_files(self) -> None:
        """SQLite goes on without a word in a file that was deleted, replaced or cut."""
        for name, (known, size) in self._files.items():
            try:
                status = os.stat(name)
            except FileNotFoundError:
                if known is None and name.endswith("-wal"):
                    continue  # where the file system does not allow write-ahead mode
                raise JournalError(f"the journal {name!r} was deleted while in use") from None
            identity = status.st_dev, status.st_ino
            if known not in (None, identity) or status.st_size < size:
                how = "cut" if known == identity else "replaced"
                raise JournalError(f"the journal {name!r} was {how} while in use")
            self._files[name] = identity, status.st_size

    def close(self) -> None:
        """Let go of the file, as one file that can be read and copied without its companions."""
        try:
            self._database.execute("PRAGMA busy_timeout = 0")
            self._database.execute("PRAGMA journal_mode = DELETE")
        except sqlite3.DatabaseError:
            pass  # somebody is reading it; it stays in two files until the next session
        self._database.close()


def read(path: Path, kind: Kind) -> tuple[dict[str, Any], list[Any]]:
    """Header and rows of a journal, of one that is being written too.

    Raises
    ------
    FileNotFoundError
        There is no such file.
    JournalError
        It is damaged, or no such journal.
    """
    name = _text(path)
    if not os.path.exists(name):
        raise FileNotFoundError(f"there is no journal {name!r}")
    with _failures(name, "cannot be read"):
        uri = _Path(os.path.abspath(name)).as_uri() + "?mode=ro"
        with closing(sqlite3.connect(uri, uri=True)) as database:
            database.execute("BEGIN")  # one state of the file for all that is read
            header, seal = _read_header(database, name, kind)
            return header, [tuple(row[1:-1]) for row in _sealed_rows(database, name, seal)]


def _text(path: Path) -> str:
    return os.fsdecode(os.fspath(path))


@contextmanager
def _failures(path: str, what: str) -> Iterator[None]:
    """Make everything that goes wrong with the file a JournalError."""
    try:
        yield
    except sqlite3.Error as error:
        raise JournalError(f"{path!r} {what}: {error}") from error
    except (ValueError, OverflowError) as error:
        # What SQLite or JSON make of damaged text.
        raise JournalError(f"{path!r} {what}: it is damaged ({error})") from error


def _is_new(database: sqlite3.Connection) -> bool:
    return not database.execute("SELECT count(*) FROM sqlite_master").fetchone()[0]


def _read_header(database: sqlite3.Connection, path: str, kind: Kind) -> tuple[dict[str, Any], str]:
    """The header and its seal."""
    mark, version = (
        database.execute(f"PRAGMA {name}").fetchone()[0]
        for name in ("application_id", "user_version")
    )
    if mark != kind.application_id:
        raise JournalError(f"{path!r} is not the journal of a {kind.name}")
    if version != kind.format:
        raise JournalError(
            f"{path!r} is a journal of format {version}; this version reads {kind.format}"
        )
    faults = database.execute("PRAGMA integrity_check(1)").fetchone()[0]
    if faults != "ok":
        raise JournalError(f"{path!r} is damaged: {faults}")
    texts = database.execute("SELECT key, value FROM header WHERE key != 'seal'").fetchall()
    seals = database.execute("SELECT value FROM header WHERE key = 'seal'").fetchall()
    seal = _seal("", sorted(texts))
    if seals != [(json.dumps(seal),)]:
        raise JournalError(f"{path!r} is damaged: the header does not fit its checksum")
    return {key: json.loads(value) for key, value in texts}, seal


def _sealed_rows(database: sqlite3.Connection, path: str, seal: str) -> Iterator[Any]:
    """Rows from number to seal, each of them checked."""
    rows = database.execute("SELECT * FROM entries ORDER BY number")
    for number, row in enumerate(rows):
        seal = _seal(seal, row[:-1])
        if row[0] != number or row[-1] != seal:
            raise JournalError(f"{path!r} is damaged: row {number} does not fit its checksum")
        yield row


def _seal(before: str, content: Sequence[Any]) -> str:
    held = [_as_kept(item) if type(item) is float else item for item in content]
    return sha256(f"{before}{held!r}".encode()).hexdigest()[:16]


def _as_kept(number: float) -> Optional[float]:
    """SQLite keeps neither NaN nor the sign of zero."""
    return None if number != number else number + 0.0
