#!/usr/bin/env python3
"""request.py URL: asks pelkin for a URL (a GET) and prints the answer's body."""
import os, socket, struct, sys, tempfile

url = os.fsencode(sys.argv[1])
if len(url) > 255:
    sys.exit("request.py: the URL has more than 255 bytes")
request = struct.pack("=II256s144sI", 2, 0, url, b"", 0)  # answer to the socket, GET, no data
envelope = struct.pack("=BBHII", 0, 0, 0, 0x15000001, len(request))
with tempfile.TemporaryDirectory() as directory:
    own = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    own.settimeout(10)
    own.bind(directory + "/socket")  # where the answer goes
    try:
        own.sendto(envelope + request, "/var/run/vok/pelkin.socket")
        sys.stdout.buffer.write(own.recv(61440))
    except OSError as error:
        sys.exit(f"request.py: no answer: {error}")
