"""The message bus for scripts; part of the module `connector`."""

_subscriptions = {}
_services = {}
_rules = {}


def publish(channel, data=None):
    """Sends `data`, anything that the json module writes, to all subscribers of a channel ("/news/weather").

    Waits for subscribers that are behind, at most a second for all of them. Raises ValueError for a bad or reserved
    channel and for NaN, TypeError for data without a JSON form, RuntimeError while the connector is stopped.
    """
    _bus_publish(channel, _library("json").dumps(data, allow_nan=False, separators=(",", ":")))


class _Subscription:
    def __init__(self, channel, callback):
        self._callback = callback
        self._handle = _bus_subscribe(channel, self._deliver)

    def _deliver(self, channel, text):
        try:
            self._callback(channel, _library("json").loads(text))
        except Exception as error:
            _print_error(error)

    def cancel(self):
        handle, self._handle = self._handle, None
        if handle is not None:
            _bus_end(handle)


def subscribe(channel, callback=None):
    """Has `callback(channel, data)` called for each message of a channel, or of a pattern ("/news/*", "/news/**").

    Calls come on the main thread while it is idle: at the prompt, and between requests. Also a decorator:

        @connector.subscribe("/news/*")
        def news(channel, data): ...

    Answers the callback; `unsubscribe(callback)` ends it. Subscriptions outlive a stop and start of the connector. Of more
    than 10,000 messages that wait, the newest are lost, and the number is said on standard error.
    """
    if callback is None:
        return lambda function: subscribe(channel, function)
    if not callable(callback):
        raise TypeError("callback must be callable")
    subscription = _Subscription(channel, callback)
    _subscriptions.setdefault(callback, []).append(subscription)
    return callback


def unsubscribe(callback):
    """Ends all subscriptions of the callback. Raises ValueError when there is none."""
    if callback not in _subscriptions:
        raise ValueError("not subscribed")
    for subscription in _subscriptions.pop(callback):
        subscription.cancel()


class _Service:
    def __init__(self, channel, function):
        self._function = function
        self._handle = _bus_serve(channel, self._serve)

    def _serve(self, channel, text, session):
        """(JSON, None), or (kind, text) of an error."""
        json = _library("json")
        try:
            answer = self._function(channel, json.loads(text), session)
            return json.dumps(answer, allow_nan=False, separators=(",", ":")), None
        except Exception as error:
            _print_error(error)
            return type(error).__name__, str(error)

    def cancel(self):
        handle, self._handle = self._handle, None
        if handle is not None:
            _bus_end(handle)


def serve(channel, function=None):
    """Has `function(channel, data, session)` answer what clients send to a channel ("/service/add"), or a pattern.

    What it returns, anything that the json module writes, goes to the sender alone; an exception is printed, and its type
    and text go there as an error. `session` is the sender's id, one of those of `sessions()`. Calls come on the main thread
    while it is idle, one by one; beyond 1,000 that wait for a service, clients are told that it is busy. Also a decorator:

        @connector.serve("/service/add")
        def add(channel, data, session):
            return data["a"] + data["b"]

    Answers the function; `unserve(function)` ends it. Services outlive a stop and start of the connector. Of two that serve
    one channel the newer does; services of the connector itself come first.
    """
    if function is None:
        return lambda decorated: serve(channel, decorated)
    if not callable(function):
        raise TypeError(f"a service is a function, not {function!r}")
    service = _Service(channel, function)
    _services.setdefault(function, []).append(service)
    return function


def unserve(function):
    """Ends all services of the function. Raises ValueError when it serves nothing."""
    if function not in _services:
        raise ValueError(f"{function!r} serves nothing")
    for service in _services.pop(function):
        service.cancel()


def _audience(name, value):
    if value is True:
        return None
    if value is False:
        return []
    if not isinstance(value, (list, tuple, set, frozenset)):
        raise TypeError(f"{name} is True, False, or a list of sessions, not {value!r}")
    return [_session_id(session) for session in value]


def _session_id(session):
    if isinstance(session, Session):
        return session.id
    if isinstance(session, str):
        return session
    raise TypeError(f"a session is told by its id, not {session!r}")


def channel(name, *, retain=False, presence=False, lazy=False, publish=True, subscribe=True):
    """Says what a channel, or all that a pattern matches, does and which clients may use it.

    retain     new subscribers get the last message at once
    presence   joins and leaves are published on "/presence" and the channel's name
    lazy       messages wait for company, some seconds at most
    publish    which clients may publish: True for all, False for none, or a list of sessions
    subscribe  which clients may subscribe; others get nothing by patterns, either

    Each call says all of it anew; without options it takes back what was said. Several names that match a channel add up,
    with what the configuration says. The scripts of this host are not restricted. Outlives a stop and start of the connector;
    retained messages do not. Raises ValueError for a bad name, TypeError for other values.
    """
    for option, value in (("retain", retain), ("presence", presence), ("lazy", lazy)):
        if not isinstance(value, bool):
            raise TypeError(f"{option} is True or False, not {value!r}")
    publishers, subscribers = _audience("publish", publish), _audience("subscribe", subscribe)
    rule = _bus_rule(name, retain, presence, lazy, publishers, subscribers)
    before = _rules.pop(name, None)
    if retain or presence or lazy or publishers is not None or subscribers is not None:
        _rules[name] = rule
    else:
        _bus_end(rule)
    if before is not None:
        _bus_end(before)


class Session:
    """A client of the message bus, as it was when it was asked for.

    id             by which others may know it, as presence does; not its secret clientId
    address        where it shook hands from
    transport      "websocket" or "long-polling"
    queued         how many messages wait for it
    subscriptions  its channels and patterns
    """

    __slots__ = ("id", "address", "transport", "queued", "subscriptions")

    def __init__(self, id, address, websocket, queued, subscriptions):
        self.id = id
        self.address = address
        self.transport = "websocket" if websocket else "long-polling"
        self.queued = queued
        self.subscriptions = sorted(subscriptions)

    def __repr__(self):
        return f"<Session {self.id} {self.transport} from {self.address}: {', '.join(self.subscriptions) or 'nothing'}>"

    def end(self):
        """As end_session."""
        end_session(self)


def sessions():
    """The clients of the message bus, a list of Session; none while the connector is stopped."""
    return [Session(*row) for row in _bus_sessions()]


def end_session(session):
    """Sends a client away, a Session or its id: it is told not to come back. Raises ValueError when there is none."""
    if not _bus_end_session(_session_id(session)):
        raise ValueError(f"there is no session {_session_id(session)!r}")
