#!/usr/bin/env python3
# name_server.py ADDRESS: a DNS server on loopback that gives every name the one address. Prints "ready".
import socket, sys

ADDRESS = socket.inet_aton(sys.argv[1])
AUTHORITATIVE_ANSWER, ONE_OF_EACH = b"\x85\x80", b"\0\1\0\1\0\0\0\0"
NAME_OF_QUESTION, A_IN, TIME_TO_LIVE = b"\xc0\x0c", b"\0\1\0\1", b"\0\0\0\x3c"

server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 53))
print("ready", flush=True)
while True:
    query, client = server.recvfrom(512)
    end = query.index(b"\0", 12) + 5  # the name, its type and class
    answer = NAME_OF_QUESTION + A_IN + TIME_TO_LIVE + b"\0\4" + ADDRESS
    server.sendto(query[:2] + AUTHORITATIVE_ANSWER + ONE_OF_EACH + query[12:end] + answer, client)
