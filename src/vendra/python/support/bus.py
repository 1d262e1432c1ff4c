"""The message bus for scripts; part of the module `connector`."""

_subscriptions = {}


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
            _bus_unsubscribe(handle)


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
