#!/usr/bin/env python3
"""The apps, servers and platform client of the host demo (tools/run-host.sh).

  demo.py relay DAEMON_SOCKET RELAY_SOCKET    hold mlbd's one control connection for mlbdctl runs
  demo.py game-server ADDRESS PORT            a game server that also answers mlbd's RTT probes
  demo.py web-server ADDRESS PORT             pages of PAGE_BYTES, telling the client its address
  demo.py game UID SERVER PORT LINKS          a game under UID that reconnects when reset
  demo.py web UID SERVER PORT LINKS SECONDS   short page loads under UID, counted per link

LINKS names the device's links by the address the servers see, e.g.
10.77.1.2=wlan0,10.77.2.2=rmnet_data0,fd00:1::2=wlan0 (ADDRESS and SERVER may be IPv6; the daemon masquerades steered traffic, so the server side
is where a connection's link shows). Lines printed carry the seconds since $DEMO_T0.
"""
import collections
import encodings.idna  # noqa: F401 (loaded while still root: the library may be unreadable later)
import os
import socket
import socketserver
import sys
import threading
import time

PAGE_BYTES = 24 * 1024
T0 = int(os.environ.get("DEMO_T0", time.time() * 1e6)) / 1e6  # microseconds


def say(text):
    print(f"[{time.time() - T0:5.1f}s] {text}", flush=True)


def become(uid):
    os.setgroups([])
    os.setgid(uid)
    os.setuid(uid)


def relay(daemon_path, relay_path):
    # mlbd serves only the first client that connects, for its whole life; every mlbdctl run is
    # a new connection. So this process is that first client, and passes on, in order, what each
    # mlbdctl run sends to the relay socket.
    up = socket.socket(socket.AF_UNIX)
    for _ in range(100):
        try:
            up.connect(daemon_path)
            break
        except OSError:
            time.sleep(0.1)
    else:
        sys.exit(f"relay: no control socket at {daemon_path}")
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(relay_path)
    listener.listen(8)
    while True:
        client, _ = listener.accept()
        with client:
            while data := client.recv(65536):
                up.sendall(data)


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True

    def __init__(self, address, handler):
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        super().__init__(address, handler)

    def handle_error(self, request, client_address):
        pass  # resets are part of the show


class GameConnection(socketserver.BaseRequestHandler):
    # Every 28 bytes get 30 back, as the daemon's probes expect. Probes send letters and digits;
    # the game's messages begin with '#', and their answer tells the game its address as seen here.
    def handle(self):
        seen = self.client_address[0].encode()
        pending = b""
        while data := self.request.recv(4096):
            pending += data
            while len(pending) >= 28:
                message, pending = pending[:28], pending[28:]
                game = message[:1] == b"#"
                self.request.sendall((b"#" + seen).ljust(30, b"\0") if game else message + b"\0\0")


class WebPage(socketserver.StreamRequestHandler):
    def handle(self):
        while self.rfile.readline() not in (b"\r\n", b"\n", b""):
            pass
        head = f"HTTP/1.0 200 OK\r\nX-Client: {self.client_address[0]}\r\n"
        self.wfile.write(f"{head}Content-Length: {PAGE_BYTES}\r\n\r\n".encode() + bytes(PAGE_BYTES))


def game(server, port, links):
    number, reached = 0, True
    while True:
        try:
            s = socket.create_connection((server, port), timeout=3)
        except OSError as e:
            if reached:
                say(f"game: cannot reach its server ({e.strerror or e}); trying on")
            reached = False
            time.sleep(0.2)
            continue
        number, reached = number + 1, True
        try:
            with s:
                link = None
                while True:
                    s.sendall(f"#move {time.monotonic():.3f}".encode().ljust(28)[:28])
                    answer = s.recv(30, socket.MSG_WAITALL)
                    if len(answer) < 30:
                        raise ConnectionError("closed by the server")
                    if link is None:
                        seen = answer[1:].rstrip(b"\0").decode()
                        link = links.get(seen, seen)
                        say(f"game: connection {number} plays over {link} (server sees {seen})")
                    time.sleep(0.1)
        except OSError as e:
            say(f"game: connection {number} lost ({e.strerror or e}); reconnecting")
            time.sleep(0.2)


def web(server, port, links, seconds, workers=6):
    counts, total, lock = collections.Counter(), collections.Counter(), threading.Lock()
    end = time.monotonic() + seconds

    def browse():
        while time.monotonic() < end:
            try:
                with socket.create_connection((server, port), timeout=5) as s:
                    s.sendall(b"GET / HTTP/1.0\r\nHost: web\r\n\r\n")
                    page = b""
                    while data := s.recv(65536):
                        page += data
                seen = page.split(b"X-Client: ", 1)[1].split(b"\r\n", 1)[0].decode()
                with lock:
                    counts[links.get(seen, seen)] += 1
            except (OSError, IndexError):
                time.sleep(0.1)

    def shares(c):
        n = sum(c.values()) or 1
        names = dict.fromkeys(links.values())  # each link once, in order
        return ", ".join(f"{c[l]} over {l} ({100 * c[l] // n}%)" for l in names)

    for _ in range(workers):
        threading.Thread(target=browse, daemon=True).start()
    while time.monotonic() < end:
        time.sleep(min(2, max(0, end - time.monotonic())))
        with lock:
            say(f"web: page loads in the last 2 s: {shares(counts)}")
            total.update(counts)
            counts.clear()
    say(f"web: all {sum(total.values())} page loads: {shares(total)}")


def main(argv):
    command, args = argv[1], argv[2:]
    if command == "relay":
        relay(*args)
        return
    if command in ("game-server", "web-server"):
        handler = GameConnection if command == "game-server" else WebPage
        Server((args[0], int(args[1])), handler).serve_forever()
        return
    become(int(args[0]))
    links = dict(pair.split("=") for pair in args[3].split(","))
    if command == "game":
        game(args[1], int(args[2]), links)
    elif command == "web":
        web(args[1], int(args[2]), links, float(args[4]))
    else:
        sys.exit(f"demo.py: unknown command {command}")


if __name__ == "__main__":
    try:
        main(sys.argv)
    except KeyboardInterrupt:
        pass
