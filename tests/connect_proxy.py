#!/usr/bin/python3
"""An HTTP proxy that knows CONNECT and nothing else; with --silent it takes connections and never says a word. It
prints the port that it listens on, then a line for each tunnel: "CONNECT HOST:PORT"."""

import select
import socket
import sys
import threading


def read_head(client):
    head = b""
    while b"\r\n\r\n" not in head:
        piece = client.recv(4096)
        if not piece:
            return b""
        head += piece
    return head


def tunnel(client, server):
    while True:
        for side in select.select([client, server], [], [])[0]:
            piece = side.recv(65536)
            if not piece:
                return
            (server if side is client else client).sendall(piece)


def serve(client):
    with client:
        method, target, *_ = read_head(client).decode().split() or ("", "")
        if method != "CONNECT":
            client.sendall(b"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n")
            return
        print(f"CONNECT {target}", flush=True)
        host, port = target.rsplit(":", 1)
        with socket.create_connection((host, int(port))) as server:
            client.sendall(b"HTTP/1.1 200 Connection Established\r\n\r\n")
            tunnel(client, server)


def main():
    silent, kept = "--silent" in sys.argv[1:], []
    with socket.create_server(("127.0.0.1", 0)) as listening:
        print(f"listening on {listening.getsockname()[1]}", flush=True)
        while True:
            client = listening.accept()[0]
            if silent:
                kept.append(client)
            else:
                threading.Thread(target=serve, args=(client,), daemon=True).start()


if __name__ == "__main__":
    main()
