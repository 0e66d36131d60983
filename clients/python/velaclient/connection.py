"""One TCP connection to the instrument's remote-control server.

Requests go out as "<id> <command> <args>"; the server answers each with
"<id> ack", any "<id> data|warning|error ..." lines and "<id> ready <s>",
and sends "0 event <text>" lines to every client at any time. A reader
thread sorts the incoming lines by id into the pending requests, so several
requests may be in flight at once (a scan's data lines, an autoinfo's
reports and a get interleave), and hands events to callbacks and a queue.
"""

import collections
import logging
import queue
import re
import socket
import threading
import time
from dataclasses import dataclass, field

from .errors import ConnectionClosed, InstrumentError, ProtocolError, RequestTimeout

log = logging.getLogger("velaclient")

DEFAULT_PORT = 7073
DEFAULT_TIMEOUT = 5.0
# The server reads a request into a 256-byte buffer and drops longer lines
# without any reply; refusing them here turns a silent time-out into an error.
MAX_LINE = 255
# Each client slot keeps only the latest request id; the ids themselves are
# parsed as unsigned and printed as int.
MAX_ID = 2**31 - 1
EVENT_QUEUE_SIZE = 1000

_LINE = re.compile(r"(\d+) (ack|data|warning|error|ready|event)(?: (.*))?\Z", re.S)


@dataclass
class Event:
    """An unsolicited "0 event <text>" line."""

    text: str
    received: float = field(default_factory=time.time)


@dataclass
class Reply:
    """Everything a finished request received."""

    request_id: int
    command: str
    data: list = field(default_factory=list)
    warnings: list = field(default_factory=list)
    errors: list = field(default_factory=list)
    elapsed: float = None  # seconds, from the ready line (None if it has none)


class Request:
    """A request in flight. Its reply lines are read with :meth:`replies`
    (one at a time, as they arrive) or :meth:`wait` (all of them)."""

    def __init__(self, conn, request_id, command):
        self.conn = conn
        self.id = request_id
        self.command = command
        self.reply = Reply(request_id, command)
        self.done = False
        self._lines = collections.deque()
        self._arrived = threading.Condition()

    def _feed(self, kind, text):
        with self._arrived:
            self._lines.append((kind, text))
            self._arrived.notify_all()

    def poll(self, timeout=0.0):
        """True when a reply line is waiting to be read (within timeout s)."""
        with self._arrived:
            return bool(self._arrived.wait_for(lambda: self._lines, timeout))

    def next_line(self, timeout=None):
        """The next (kind, text) of this request: kind is "ack", "data",
        "warning", "error" or "ready". Raises RequestTimeout when nothing
        arrives within timeout seconds, ConnectionClosed when the connection
        ended."""
        if self.done:
            raise ProtocolError(f"request {self.id} ({self.command}) is finished")
        timeout = self.conn.timeout if timeout is None else timeout
        if not self.poll(timeout):
            raise RequestTimeout(f"{self.command}: no reply within {timeout:g} s")
        with self._arrived:
            kind, text = self._lines.popleft()
        if kind == "closed":
            self.done = True
            raise ConnectionClosed(f"{self.command}: connection closed ({text or 'by the instrument'})", text)
        if kind == "data":
            self.reply.data.append(text)
        elif kind == "warning":
            self.reply.warnings.append(text)
        elif kind == "error":
            self.reply.errors.append(text)
        elif kind == "ready":
            self.done = True
            try:
                self.reply.elapsed = float(text) if text else None
            except ValueError:
                raise ProtocolError(f"{self.command}: bad ready line: {text!r}") from None
        return kind, text

    def replies(self, timeout=None):
        """Yields (kind, text) for each line after the ack, up to and
        including ("ready", ...). timeout bounds the wait for each line."""
        while not self.done:
            kind, text = self.next_line(timeout)
            if kind != "ack":
                yield kind, text

    def wait(self, timeout=None, check=True):
        """Waits for the ready line and returns the Reply; raises
        InstrumentError if the request got an error line (unless check is
        false)."""
        for _ in self.replies(timeout):
            pass
        if check and self.reply.errors:
            raise InstrumentError(self.command, self.reply.errors, self.id)
        return self.reply


class Connection:
    """A connection to the server: ``Connection(host, port)`` connects at
    once; use it as a context manager or call :meth:`close`.

    timeout: default seconds to wait for each reply line.
    on_event: a callable taking an :class:`Event`; more with
    :meth:`add_event_handler`. Handlers run on the reader thread and must
    not wait for replies themselves. Every event is also put into the queue
    :attr:`events` (the oldest are dropped beyond 1000 unread ones).
    """

    def __init__(self, host="localhost", port=DEFAULT_PORT, timeout=DEFAULT_TIMEOUT, on_event=None):
        self.host = host
        self.port = port
        self.timeout = timeout
        self.events = queue.Queue()
        self._handlers = [on_event] if on_event else []
        self._lock = threading.Lock()  # pending table, id counter, socket writes
        self._pending = {}
        self._next_id = 1
        self._scan = None  # the request of the running scan, for its stray warning
        self._closed = False
        self._close_reason = ""
        self._event_cond = threading.Condition()
        self._recent_events = collections.deque(maxlen=EVENT_QUEUE_SIZE)
        try:
            self._sock = socket.create_connection((host, port), timeout=timeout)
        except OSError as e:
            raise ConnectionClosed(f"cannot connect to {host}:{port}: {e.strerror or e}") from e
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._sock.settimeout(None)
        self._first_line = threading.Event()
        self._reader = threading.Thread(target=self._read_loop, name="velaclient-reader", daemon=True)
        self._reader.start()
        # A new client first gets the battery state; a refused one gets the
        # busy text and the end of the connection instead.
        if not self._first_line.wait(timeout):
            # A silent peer: no "." and no second wait for the reader.
            self._mark_closed("no greeting")
            try:
                self._sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            self._sock.close()
            raise ConnectionClosed(f"{host}:{port} did not greet within {timeout:g} s", silent=True)
        if self._closed:
            self._sock.close()
            raise ConnectionClosed(f"{host}:{port} refused the connection: {self._close_reason}", self._close_reason)

    # -- context manager --
    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    @property
    def closed(self):
        return self._closed

    def add_event_handler(self, handler):
        self._handlers.append(handler)

    def remove_event_handler(self, handler):
        self._handlers.remove(handler)

    def wait_event(self, match, timeout=None, since=None):
        """Waits for an event whose text equals match (or for which match,
        a callable, is true) received at or after the time since (default:
        now) and returns it; RequestTimeout after timeout seconds."""
        test = match if callable(match) else (lambda text: text == match)
        since = time.time() if since is None else since
        timeout = self.timeout if timeout is None else timeout
        deadline = time.monotonic() + timeout
        with self._event_cond:
            while True:
                for ev in self._recent_events:
                    if ev.received >= since and test(ev.text):
                        return ev
                if self._closed:
                    raise ConnectionClosed(f"connection closed while waiting for an event ({self._close_reason})")
                left = deadline - time.monotonic()
                if left <= 0:
                    raise RequestTimeout(f"no event {match!r} within {timeout:g} s")
                self._event_cond.wait(left)

    # -- requests --
    def send(self, command):
        """Sends one request and returns its :class:`Request` at once."""
        if "\n" in command or "\r" in command:
            raise ValueError("a request is one line")
        with self._lock:
            if self._closed:
                raise ConnectionClosed(f"{command}: connection closed ({self._close_reason or 'by the client'})")
            request_id = self._next_id
            self._next_id = 1 if request_id >= MAX_ID else request_id + 1
            line = f"{request_id} {command}"
            data = (line + "\n").encode()
            if len(data) - 1 > MAX_LINE:
                raise ValueError(f"request longer than {MAX_LINE} bytes: {command[:40]}...")
            req = Request(self, request_id, command)
            self._pending[request_id] = req
            if command.startswith("scan"):
                self._scan = req
            try:
                self._sock.sendall(data)
            except OSError as e:
                del self._pending[request_id]
                raise ConnectionClosed(f"{command}: cannot send: {e.strerror or e}") from e
        log.debug("> %s", line)
        return req

    def command(self, command, timeout=None):
        """Sends a request, waits for its ready line and returns the Reply;
        an error line raises InstrumentError with the instrument's text."""
        return self.send(command).wait(timeout)

    def close(self):
        """Ends the connection: a "." line makes the server stop this
        client's running scan, move or autoinfo and close its side."""
        with self._lock:
            already = self._closed
            if not already:
                try:
                    self._sock.sendall(b".\n")
                except OSError:
                    pass
        if not already:
            self._reader.join(self.timeout)
        self._mark_closed("closed by the client")
        try:
            self._sock.shutdown(socket.SHUT_RDWR)  # wakes a reader still waiting
        except OSError:
            pass
        try:
            self._sock.close()
        except OSError:
            pass

    # -- reader thread --
    def _read_loop(self):
        buf = b""
        reason = "closed by the instrument"
        try:
            while True:
                chunk = self._sock.recv(65536)
                if not chunk:
                    break
                buf += chunk
                while b"\n" in buf:
                    raw, buf = buf.split(b"\n", 1)
                    self._first_line.set()
                    self._dispatch(raw.rstrip(b"\r").decode("utf-8", "replace"))
        except OSError as e:
            reason = f"connection lost: {e.strerror or e}"
        text = buf.decode("utf-8", "replace").strip()
        self._mark_closed(text or reason)
        self._first_line.set()

    def _mark_closed(self, reason):
        with self._lock:
            if self._closed:
                return
            self._closed = True
            self._close_reason = reason
            pending = list(self._pending.values())
            self._pending.clear()
        for req in pending:
            req._feed("closed", reason)
        with self._event_cond:
            self._event_cond.notify_all()

    def _dispatch(self, line):
        if not line:
            return
        log.debug("< %s", line)
        m = _LINE.match(line)
        if not m:
            log.warning("unexpected line from the instrument: %r", line)
            return
        request_id, kind, text = int(m.group(1)), m.group(2), m.group(3) or ""
        if kind == "event":
            self._deliver_event(Event(text))
            return
        with self._lock:
            req = self._pending.get(request_id)
            # The scan's underflow warning carries the client's latest
            # request id, which is the scan's only if nothing was sent since.
            if kind == "warning" and text == "OF MINUS" and self._scan is not None and not self._scan.done:
                req = self._scan
            if kind == "ready" and req is not None:
                self._pending.pop(request_id, None)
                if req is self._scan:
                    self._scan = None
        if req is None:
            log.debug("line for no pending request: %r", line)
            return
        req._feed(kind, text)

    def _deliver_event(self, ev):
        with self._event_cond:
            self._recent_events.append(ev)
            self._event_cond.notify_all()
        if self.events.qsize() >= EVENT_QUEUE_SIZE:
            try:
                self.events.get_nowait()
            except queue.Empty:
                pass
        self.events.put(ev)
        for handler in list(self._handlers):
            try:
                handler(ev)
            except Exception:  # a handler's fault must not end the reader
                log.exception("event handler failed on %r", ev.text)
