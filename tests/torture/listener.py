"""A server on a free port of 127.0.0.1 that can refuse connections for a while."""
import socket
import threading
import time


class Listener:
    """fault "refuse": nobody listens. Each connection is given to `serve`, on a thread of its own."""

    def __init__(self, serve):
        self.serve_one, self.fault, self.open = serve, "none", True
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        while self.open:
            if self.fault == "refuse" and self.listener:
                self.listener.close()
                self.listener = None
            elif self.fault != "refuse" and not self.listener:
                self.listener = socket.create_server(("127.0.0.1", self.port))
            if not self.listener:
                time.sleep(0.02)
                continue
            self.listener.settimeout(0.05)
            try:
                connection = self.listener.accept()[0]
            except OSError:
                continue
            threading.Thread(target=self.serve_one, args=(connection,), daemon=True).start()
