"""Listens on a launcher's control socket, and sends invalid replies.

    fake_launcher.py [ARGUMENT...]

/tmp/answers defines its actions, one JSON array: the first element is for the first connection since the file was written, and so
on; the last for all others. An element is

    {"read": N, "send": HEX, "end": "close", "reset" or "hold"}

N bytes are read, those of HEX are sent, and the connection ends, by "hold"
when the client ends it. What was read goes to /tmp/requests, a line of JSON
for each connection.
"""

import json
import os
import socket
import struct

DIRECTORY = "/tmp/vornlaunch"


def read_exactly(client, count):
    data = b""
    while len(data) < count:
        piece = client.recv(count - len(data))
        if not piece:
            break
        data += piece
    return data


def serve(client, answer):
    data = read_exactly(client, answer["read"])
    with open("/tmp/requests", "a", encoding="ascii") as requests:
        requests.write(json.dumps(data.hex()) + "\n")
    try:
        client.sendall(bytes.fromhex(answer["send"]))
    except ConnectionError:
        return
    if answer["end"] == "reset":
        client.setsockopt(
            socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    if answer["end"] == "hold":
        try:
            client.recv(1)
        except ConnectionError:
            pass


def main():
    os.makedirs(DIRECTORY, exist_ok=True)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(DIRECTORY + "/vornlaunch.sock")
    listener.listen()
    written, answers = None, []
    while True:
        client, _ = listener.accept()
        with client, open("/tmp/answers", encoding="ascii") as file:
            identity = os.fstat(file.fileno()).st_ino
            if identity != written:
                written, answers = identity, json.load(file)
            serve(client, answers[0])
            if len(answers) > 1:
                del answers[0]


if __name__ == "__main__":
    main()
