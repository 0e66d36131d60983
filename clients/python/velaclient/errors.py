"""Exceptions of the client library."""


class VelaError(Exception):
    """Base of every error this library raises."""


class InstrumentError(VelaError):
    """The instrument answered a request with an ``error`` line.

    ``text`` is the instrument's own text ("invalid pstate", "unknown
    channel", ...); ``texts`` holds every error line of the request, in
    order.
    """

    def __init__(self, command, texts, request_id=None):
        self.command = command
        self.texts = list(texts)
        self.text = self.texts[0] if self.texts else ""
        self.request_id = request_id
        super().__init__(f"{command}: {'; '.join(self.texts)}")


class ScanError(InstrumentError):
    """A scan ended with an error ("OF PLUS", "timeout", "aborted", ...).

    ``profile`` holds the samples that arrived before the error.
    """

    def __init__(self, command, texts, request_id=None, profile=None):
        super().__init__(command, texts, request_id)
        self.profile = profile


class ProtocolError(VelaError):
    """The instrument sent something this library cannot understand."""


class ConnectionClosed(VelaError, ConnectionError):
    """The connection ended, by us, by the instrument or by the network.

    ``server_text`` is what the instrument said as it closed, if anything
    (a sixth client gets "ERROR: Sorry, server is too busy."). ``silent``
    is true when the peer accepted the connection but never greeted: a
    suspended instrument does that.
    """

    def __init__(self, message, server_text="", silent=False):
        self.server_text = server_text
        self.silent = silent  # the peer accepted the connection but never greeted
        super().__init__(message)


class RequestTimeout(VelaError, TimeoutError):
    """No reply line arrived in time."""
