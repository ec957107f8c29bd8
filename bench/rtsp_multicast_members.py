#!/usr/bin/env python3
"""Multicast viewers that receive nothing: N RTSP sessions that set up both
tracks of a stream as multicast and play, then only keep their sessions
alive (GET_PARAMETER every 20 s) until killed. They join no group, so what
they cost a server is its own work for a member, without the local delivery
of the group's datagrams that a viewer on the same machine adds.

    rtsp_multicast_members.py rtsp://127.0.0.1:8554/live N
"""
import socket
import sys
import time


def request(sock, cseq, method, url, extra=""):
    sock.sendall(f"{method} {url} RTSP/1.0\r\nCSeq: {cseq}\r\n{extra}\r\n".encode())
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(4096)
        if not chunk:
            raise ConnectionError(f"{method}: connection closed")
        data += chunk
    head = data.split(b"\r\n\r\n")[0].decode()
    if not head.startswith("RTSP/1.0 200"):
        raise ConnectionError(f"{method}: {head.splitlines()[0]}")
    for line in head.split("\r\n"):
        if line.lower().startswith("session:"):
            return line.split(":", 1)[1].strip().split(";")[0]
    return None


def main():
    url, count = sys.argv[1], int(sys.argv[2])
    host, port = url.split("//")[1].split("/")[0].rsplit(":", 1)
    members = []
    for _ in range(count):
        sock = socket.create_connection((host, int(port)))
        session = request(sock, 1, "SETUP", url + "/trackID=0", "Transport: RTP/AVP;multicast\r\n")
        request(sock, 2, "SETUP", url + "/trackID=1",
                f"Transport: RTP/AVP;multicast\r\nSession: {session}\r\n")
        request(sock, 3, "PLAY", url, f"Session: {session}\r\n")
        members.append((sock, session))
    print(f"{count} members playing", flush=True)
    cseq = 4
    while True:
        time.sleep(20)
        for sock, session in members:
            request(sock, cseq, "GET_PARAMETER", url, f"Session: {session}\r\n")
        cseq += 1


if __name__ == "__main__":
    main()
