#!/usr/bin/env python3
"""A proxy for the agent's end-to-end tests: tunnels CONNECT requests on an
ephemeral port of 127.0.0.1, which it prints first ("listening on PORT"),
then one line per tunnel ("CONNECT host:port"). With --ask-auth it answers
every CONNECT with 407 instead."""
import socket
import sys
import threading

ASK_AUTH = "--ask-auth" in sys.argv[1:]


def pipe(a, b):
    try:
        while True:
            data = a.recv(65536)
            if not data:
                break
            b.sendall(data)
    except OSError:
        pass
    for s in (a, b):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def join(a, b):
    threading.Thread(target=pipe, args=(a, b), daemon=True).start()
    threading.Thread(target=pipe, args=(b, a), daemon=True).start()


def say(line):
    print(line, flush=True)


def tunnel(conn):
    head = b""
    while b"\r\n\r\n" not in head:
        data = conn.recv(4096)
        if not data:
            conn.close()
            return
        head += data
    words = head.split(b"\r\n")[0].split()
    if len(words) < 2 or words[0] != b"CONNECT":
        conn.sendall(b"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n")
        conn.close()
        return
    host, port = words[1].decode().rsplit(":", 1)
    say("CONNECT %s:%s" % (host, port))
    if ASK_AUTH:
        conn.sendall(b"HTTP/1.1 407 Proxy Authentication Required\r\n"
                     b"Proxy-Authenticate: Basic realm=\"proxy\"\r\nContent-Length: 0\r\n\r\n")
        conn.close()
        return
    upstream = socket.create_connection((host, int(port)))
    conn.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
    join(conn, upstream)


def main():
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(16)
    say("listening on %d" % listener.getsockname()[1])
    while True:
        conn, _ = listener.accept()
        threading.Thread(target=tunnel, args=(conn,), daemon=True).start()


main()
