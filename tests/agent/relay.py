#!/usr/bin/env python3
"""Helpers of the agent's end-to-end tests, each on an ephemeral port of
127.0.0.1 that it prints first ("listening on PORT"), then one line per
connection:
  relay.py tls CERT KEY CLIENT_CA TARGET_PORT
      a TLS front that requires a client certificate signed by CLIENT_CA and
      passes each connection on to 127.0.0.1:TARGET_PORT ("accepted" or
      "refused: REASON")
  relay.py connect
      an HTTP proxy that tunnels CONNECT requests ("CONNECT host:port")
"""
import socket
import ssl
import sys
import threading


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


def tls_front(conn, context, port):
    try:
        conn = context.wrap_socket(conn, server_side=True)
    except (ssl.SSLError, OSError) as error:
        say("refused: %s" % error)
        conn.close()
        return
    say("accepted")
    join(conn, socket.create_connection(("127.0.0.1", port)))


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
    upstream = socket.create_connection((host, int(port)))
    conn.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
    join(conn, upstream)


def main():
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(16)
    if sys.argv[1] == "tls":
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(sys.argv[2], sys.argv[3])
        context.load_verify_locations(sys.argv[4])
        context.verify_mode = ssl.CERT_REQUIRED
        target = int(sys.argv[5])
        serve = lambda conn: tls_front(conn, context, target)
    else:
        serve = tunnel
    say("listening on %d" % listener.getsockname()[1])
    while True:
        conn, _ = listener.accept()
        threading.Thread(target=serve, args=(conn,), daemon=True).start()


main()
