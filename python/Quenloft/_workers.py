# SPDX-License-Identifier: MIT
"""Where calls are made: here, in processes of our own, in an executor's, or through a map.

All kinds are used in the same way: `submit` calls, and `wait` for one of their answers at a time.
"""

from __future__ import annotations

import os
import signal
import sys
from collections import deque
from contextlib import contextmanager, suppress
from queue import Empty, SimpleQueue
from time import monotonic
from traceback import format_exc
from typing import (
    TYPE_CHECKING,
    Any,
    Callable,
    Iterable,
    Iterator,
    NamedTuple,
    Optional,
    Protocol,
    Sequence,
    Union,
)

from ._errors import EvaluationTimeout, WorkerError
from ._settings import whole_number

if TYPE_CHECKING:
    from concurrent.futures import Executor
    from multiprocessing.connection import Connection
    from multiprocessing.context import BaseContext
    from multiprocessing.process import BaseProcess

#: What `minimize` and `minimize_many` take as their workers.
WorkersArgument = Union[int, "Executor", Callable[..., Any]]

_PR_SET_PDEATHSIG = 1


class Answer(NamedTuple):
    """What came of a call: its value, or the exception that it raised."""

    key: int
    value: Any
    error: Optional[BaseException]


class Workers(Protocol):
    """Makes calls of one function; for one thread to use."""

    #: Calls that can be under way at once.
    size: int

    @property
    def busy(self) -> int:
        """Calls submitted whose answers were not taken yet."""

    def submit(self, key: int, arguments: Sequence[Any]) -> None:
        """Call the function with these arguments when a worker is free."""

    def wait(self, seconds: Optional[float] = None) -> Optional[Answer]:
        """The next answer, None if there is none within the time; no limit but 0 is kept by all.

        Raises
        ------
        Exception
            The workers failed, such as a process that was killed.
        """


def check(workers: Any, timeout: Optional[float] = None) -> None:
    """Raise TypeError or ValueError if these are no workers, or none that can be ended."""
    if isinstance(workers, bool):
        raise TypeError(f"workers must be a whole number, not {workers!r}")
    if not callable(workers) and not _is_executor(workers) and workers != -1:
        whole_number("workers", workers, 1)
    if timeout is None:
        return
    is_number = isinstance(timeout, (int, float)) and not isinstance(timeout, bool)
    if not is_number or not timeout > 0:
        raise ValueError(f"timeout must be a number of seconds above 0, not {timeout!r}")
    if callable(workers) or _is_executor(workers):
        raise ValueError(
            "timeout needs workers that can be ended: a number of processes, not an executor or a "
            "map"
        )


@contextmanager
def opened(
    workers: Any,
    function: Callable[..., Any],
    most: Optional[int] = None,
    timeout: Optional[float] = None,
) -> Iterator[Workers]:
    """Workers for a function; at the end nobody waits for calls that are still under way.

    Parameters
    ----------
    workers : int, Executor or map-like callable
        See `minimize`.
    function : callable
        The same for all calls.
    most : int, optional
        Calls there will be.
    timeout : float, optional
        Seconds that one call may take, in processes of our own: its answer is then an
        `EvaluationTimeout`.
    """
    executor = _executor_of(workers)
    kind = type(executor).__module__
    if kind in ("concurrent.futures.process", "mpi4py.futures.pool"):
        require_picklable(function)  # others may have means of their own
    if executor is not None or callable(workers):
        call = _Call(function)
        others = _Submitted(executor, call) if executor else _Mapped(workers, call)
        try:
            yield others
        finally:
            others.cancel()
        return
    number = os.cpu_count() or 1 if workers == -1 else int(workers)
    count = number if most is None else min(number, most)
    if count <= 1 and timeout is None:
        yield _Here(function)
        return
    require_picklable(function, timeout is None)
    processes = _Processes(function, count, timeout)
    try:
        yield processes
    finally:
        processes.close()


def require_picklable(function: Callable[..., Any], can_be_threads: bool = True) -> None:
    """Raise TypeError, with the remedy, if a function cannot be sent to other processes."""
    import pickle

    try:
        pickle.dumps(function)
    except Exception as error:
        remedy = ", or pass a ThreadPoolExecutor as workers" if can_be_threads else ""
        raise TypeError(
            f"the problem cannot be sent to other processes ({error}): define its functions at the "
            f"top level of a module{remedy}"
        ) from None


def _is_executor(item: Any) -> bool:
    # Whoever has one has imported this, which brings much with it.
    module = sys.modules.get("concurrent.futures")
    return module is not None and isinstance(item, module.Executor)


def _executor_of(workers: Any) -> Optional[Executor]:
    if _is_executor(workers):
        return workers  # type: ignore[no-any-return]
    # An executor's own map would hold every result back until those before it are there.
    owner = getattr(workers, "__self__", None)
    is_map = _is_executor(owner) and getattr(workers, "__name__", "") == "map"
    return owner if is_map else None


def _size_of(owner: Any) -> int:
    """How many calls an executor or a pool makes at once; a guess where it does not tell."""
    for name in ("_max_workers", "num_workers", "_processes"):
        size = getattr(owner, name, None)
        if isinstance(size, int):
            return max(size, 1)
    client = getattr(owner, "_client", owner)
    if hasattr(client, "nthreads"):  # Dask
        return max(int(sum(client.nthreads().values())), 1)
    return os.cpu_count() or 1


class _Here:
    """Calls made while the caller waits."""

    size = 1

    def __init__(self, function: Callable[..., Any]) -> None:
        self._function = function
        self._items: deque[tuple[int, Sequence[Any]]] = deque()

    @property
    def busy(self) -> int:
        return len(self._items)

    def submit(self, key: int, arguments: Sequence[Any]) -> None:
        self._items.append((key, arguments))

    def wait(self, seconds: Optional[float] = None) -> Optional[Answer]:
        key, arguments = self._items.popleft()
        try:
            return Answer(key, self._function(*arguments), None)
        except Exception as error:
            return Answer(key, None, error)


class _Submitted:
    """Calls whose answers come as futures, of an executor or of any other origin."""

    def __init__(self, executor: Optional[Executor], call: Callable[..., Any]) -> None:
        self.size = _size_of(executor)
        self._executor = executor
        self._call = call
        self._pending: dict[int, Any] = {}
        self._done: SimpleQueue[tuple[int, Any]] = SimpleQueue()

    @property
    def busy(self) -> int:
        return len(self._pending)

    def submit(self, key: int, arguments: Sequence[Any]) -> None:
        assert self._executor is not None
        self.add(key, self._executor.submit(self._call, (key, arguments)))

    def add(self, key: int, future: Any) -> None:
        self._pending[key] = future
        future.add_done_callback(lambda done: self._done.put((key, done)))

    def wait(self, seconds: Optional[float] = None) -> Optional[Answer]:
        try:
            key, future = self._done.get(timeout=seconds)
        except Empty:
            return None
        del self._pending[key]
        return future.result()  # type: ignore[no-any-return]

    def cancel(self) -> None:
        """Begin no more calls."""
        for future in self._pending.values():
            future.cancel()


class _Mapped:
    """Calls made by a map-like callable, as many at a time as there are workers behind it.

    It may return futures, whose answers are taken as they come; else the next calls are made when
    the answers of these were taken.
    """

    def __init__(self, apply: Callable[..., Any], call: Callable[..., Any]) -> None:
        self.size = _size_of(getattr(apply, "__self__", None))
        self._apply = apply
        self._call = call
        self._items: list[tuple[int, Sequence[Any]]] = []
        self._under_way: set[int] = set()
        self._answers: Iterator[Any] = iter(())
        self._are_there = False
        self._futures = _Submitted(None, call)
        self.cancel = self._futures.cancel

    @property
    def busy(self) -> int:
        return len(self._items) + len(self._under_way) + self._futures.busy

    def submit(self, key: int, arguments: Sequence[Any]) -> None:
        self._items.append((key, arguments))

    def wait(self, seconds: Optional[float] = None) -> Optional[Answer]:
        if self._items and not self._under_way:
            items, self._items = self._items, []
            self._begin(items)
        if self._under_way:
            if seconds == 0 and not self._are_there:
                return None  # an iterator does not tell whether it would block
            for answer in self._answers:
                self._under_way.discard(answer.key)
                return answer  # type: ignore[no-any-return]
            raise RuntimeError(f"workers gave no answer to the calls {sorted(self._under_way)}")
        return self._futures.wait(seconds)

    def _begin(self, items: list[tuple[int, Sequence[Any]]]) -> None:
        answers: Iterable[Any] = self._apply(self._call, items)
        is_list = isinstance(answers, (list, tuple)) and len(answers) == len(items)
        if is_list and all(hasattr(answer, "add_done_callback") for answer in answers):
            for (key, _), future in zip(items, answers):
                self._futures.add(key, future)
        else:
            self._under_way = {key for key, _ in items}
            self._answers = iter(answers)
            self._are_there = isinstance(answers, (list, tuple))


class _Call:
    """A function whose exceptions are answers; it can be sent to other processes."""

    def __init__(self, function: Callable[..., Any]) -> None:
        self._function = function
        self._home: Any = _place()

    def __call__(self, item: tuple[int, Sequence[Any]]) -> Answer:
        key, arguments = item
        try:
            return Answer(key, self._function(*arguments), None)
        except BaseException as error:
            return Answer(key, None, error if _place() == self._home else _portable(error))


def _place() -> tuple[str, int]:
    return os.uname().nodename, os.getpid()


def _portable(error: BaseException) -> BaseException:
    """An exception that arrives in another process, with the text of its traceback."""
    import pickle

    # Frames do not travel, nor does every exception; text does.
    vars(error)["worker_traceback"] = format_exc()
    try:
        pickle.loads(pickle.dumps(error))
    except Exception:
        text = error.worker_traceback  # type: ignore[attr-defined]
        error = RuntimeError(f"{type(error).__name__}: {error}")
        vars(error)["worker_traceback"] = text
    return error


def with_origin(error: BaseException) -> BaseException:
    """Let an exception from another process show where it was raised."""
    text = getattr(error, "worker_traceback", None)
    if text is not None and error.__traceback__ is None:
        error.__cause__ = _InWorker(text)
    return error


class _InWorker(Exception):
    """Shows the traceback of an exception that came from another process."""

    def __str__(self) -> str:
        return f"\n{self.args[0]}"


class _Process:
    """One of our processes, and the call that it has under way."""

    def __init__(self, context: BaseContext, function: Callable[..., Any]) -> None:
        self.connection, theirs = context.Pipe()
        # Not a daemon, which could not have workers itself.
        self.process: BaseProcess = context.Process(  # type: ignore[attr-defined]
            target=_work, args=(function, theirs, os.getpid(), context.get_start_method())
        )
        self.process.start()
        theirs.close()
        #: It has begun, and sits idle where there is no key.
        self.is_ready = False
        self.key: Optional[int] = None
        self.deadline = float("inf")

    def end(self) -> None:
        self.process.kill()
        self.process.join()
        self.connection.close()

    def ending(self) -> str:
        """What it ended with."""
        self.process.join(1.0)
        self.process.kill()  # if it has only closed its files
        self.process.join()
        code = self.process.exitcode or 0
        return f"signal {signal.Signals(-code).name}" if code < 0 else f"exit code {code}"


class _Processes:
    """Calls made in processes of our own, each of which can be ended and replaced."""

    def __init__(self, function: Callable[..., Any], size: int, timeout: Optional[float]) -> None:
        import multiprocessing  # which brings much with it

        self.size = size
        self._function = function
        self._timeout = timeout
        self._context = multiprocessing.get_context()
        self._processes: list[_Process] = []
        self._items: deque[tuple[int, Sequence[Any]]] = deque()
        self._answers: deque[Answer] = deque()
        self.busy = 0

    def submit(self, key: int, arguments: Sequence[Any]) -> None:
        self._items.append((key, arguments))
        self.busy += 1
        self._hand_out()

    def wait(self, seconds: Optional[float] = None) -> Optional[Answer]:
        from multiprocessing.connection import wait

        end = float("inf") if seconds is None else monotonic() + seconds
        while not self._answers:
            self._hand_out()
            until = min([end, *(p.deadline for p in self._processes)])
            things: list[Any] = [p.connection for p in self._processes]
            things += [p.process.sentinel for p in self._processes]
            ready = wait(things, None if until == float("inf") else max(until - monotonic(), 0.0))
            for process in self._processes[:]:
                if process.connection in ready:
                    self._hear(process)
                elif process.process.sentinel in ready:
                    self._lose(process)
                elif monotonic() >= process.deadline:
                    assert self._timeout is not None
                    self._replace(process, EvaluationTimeout(self._timeout))
            if not ready and monotonic() >= end:
                break
        self._hand_out()
        if not self._answers:
            return None
        self.busy -= 1
        return self._answers.popleft()

    def close(self) -> None:
        """End them, whatever they do."""
        for process in self._processes:
            process.process.terminate()
        for process in self._processes:
            process.process.join()
            process.connection.close()

    def _hand_out(self) -> None:
        """Let idle processes begin, and as many more as there is work for."""
        for process in self._processes:
            if self._items and process.is_ready and process.key is None:
                item = self._items.popleft()
                process.key = item[0]
                if self._timeout is not None:
                    process.deadline = monotonic() + self._timeout
                with suppress(OSError):  # it has just ended, as `wait` will notice
                    _send(process.connection, item)
        beginning = sum(not process.is_ready for process in self._processes)
        missing = min(len(self._items) - beginning, self.size - len(self._processes))
        for _ in range(missing):
            self._processes.append(_Process(self._context, self._function))

    def _hear(self, process: _Process) -> None:
        try:
            answer = _receive(process.connection)
        except (EOFError, OSError):
            self._lose(process)
            return
        process.is_ready = True
        if answer is not None:
            process.key, process.deadline = None, float("inf")
            self._answers.append(answer)

    def _lose(self, process: _Process) -> None:
        """A process has ended by itself."""
        ending = process.ending()
        if not process.is_ready:
            raise WorkerError(f"a worker process could not begin: it ended with {ending}")
        self._replace(process, WorkerError(f"a worker process ended with {ending}"))

    def _replace(self, process: _Process, error: Exception) -> None:
        """Take an error as the answer; another process begins when it is needed."""
        process.end()
        self._processes.remove(process)
        if process.key is not None:
            self._answers.append(Answer(process.key, None, error))


# Not the connection's own `send` and `recv`: what a signal's exception interrupts there holds a
# buffer that CPython 3.9 complains about when it is collected.
def _send(connection: Connection, item: Any) -> None:
    import pickle

    connection.send_bytes(pickle.dumps(item))


def _receive(connection: Connection) -> Any:
    import pickle

    return pickle.loads(connection.recv_bytes())


def _work(
    function: Callable[..., Any], connection: Connection, owner: int, start_method: str
) -> None:
    """What a process of ours does."""
    # Ctrl-C is the parent's to answer, and it ends its workers by this signal.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    import ctypes

    # Nor do they outlive it when it is killed (Linux).
    ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != owner and start_method != "forkserver":
        os._exit(1)  # it was killed before that was said
    call = _Call(function)
    call._home = None  # every exception has a way to go
    _send(connection, None)
    with suppress(EOFError):
        while True:
            item = _receive(connection)
            answer = call(item)
            try:
                _send(connection, answer)
            except Exception as error:  # the value cannot be sent
                _send(connection, Answer(item[0], None, _portable(error)))
