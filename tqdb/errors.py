"""The exceptions of the tqdb client, one per way a conversation with the
appliance can fail. Everything the client raises on purpose is a tqdb.Error.

    Error
     +-- ServerError          the appliance refused a request (MSG_TYPE_ERROR)
     |    +-- CriticalError   ... and called it critical (MSG_TYPE_CRITICAL)
     |    +-- LockedError     ... because another session holds the resource (MSG_TYPE_LOCK)
     +-- AuthenticationError  the login was refused
     +-- VersionError         the appliance speaks a protocol version the modules do not
     +-- ConnectionLost       the connection is gone (also an IOError)
     +-- Timeout              no answer within the time allowed
"""
from __future__ import absolute_import


class Error(Exception):
    """Base of every exception of the tqdb client."""


class ServerError(Error):
    """The appliance answered a request with a refusal. .text is the
    appliance's own text, .msg_type the MSG_TYPE_* of the answer and
    .request the name of the request it refused (None when unknown)."""

    def __init__(self, text, msg_type=None, request=None):
        Error.__init__(self, text)
        self.text = text
        self.msg_type = msg_type
        self.request = request

    def __str__(self):
        return '%s: %s' % (self.request, self.text) if self.request else self.text

    def __reduce__(self):
        return (type(self), (self.text, self.msg_type, self.request))


class CriticalError(ServerError):
    """A request answered with MSG_TYPE_CRITICAL."""


class LockedError(ServerError):
    """A request refused with MSG_TYPE_LOCK: another session holds the resource."""


class AuthenticationError(Error):
    """The appliance refused the user name or password."""


class VersionError(Error):
    """The appliance announced a protocol version the modules do not accept."""


class ConnectionLost(Error, IOError):
    """The connection to the appliance is gone: closed by the appliance (for
    example when it restarts), by the network, or by close()."""


class Timeout(Error):
    """No answer arrived within the time allowed. The request stays pending:
    its result can still be asked for."""
