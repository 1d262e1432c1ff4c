"""A Bayeux client over long polling, with nothing but the standard library."""

import json


class Client:
    """Handshakes and connects once when it is made."""

    def __init__(self, host):
        self.host = host
        self.events = []
        self.id = self.ask({"channel": "/meta/handshake", "version": "1.0",
                            "supportedConnectionTypes": ["long-polling"]})[0]["clientId"]
        self.connect()

    def ask(self, *messages):
        headers = {"Authorization": "Bearer " + self.host.discovery["token"], "Content-Type": "application/json"}
        connection = self.host.connection()
        try:
            connection.request("POST", "/messageservice/async", json.dumps(messages), headers)
            response = connection.getresponse()
            assert response.status == 200, response.status
            return json.loads(response.read())
        finally:
            connection.close()

    def send(self, channel, **members):
        """The reply; events that came along with it are the next ones."""
        reply, = [message for message in self.ask({"channel": channel, "clientId": self.id, **members})
                  if not self._isEvent(message)]
        return reply

    def connect(self):
        """The events that came since."""
        for message in self.ask({"channel": "/meta/connect", "clientId": self.id, "connectionType": "long-polling"}):
            self._isEvent(message)
        events, self.events = self.events, []
        return events

    def collect(self, count):
        events, self.events = self.events, []
        while len(events) < count:
            events += self.connect()
        return events

    def _isEvent(self, message):
        if "successful" in message:
            return False
        self.events.append(message)
        return True
