# SPDX-License-Identifier: Apache-2.0
"""slow_reader - stands in for tesk-module-reader: slow_reader.py SOCKET PORTS IMAGE MILLISECONDS [READER]

Answers the board library for Linux with the bytes of IMAGE, for each of the interfaces in PORTS, and
takes MILLISECONDS for each, as a bus does. With READER the real reader gets the same requests, so that
its cost can be seen. To each line on standard input it writes how many requests and bytes there were."""
import os
import pathlib
import select
import socket
import struct
import subprocess
import sys
import time

REQUEST, ANSWER = struct.Struct("<HBBBBBB"), struct.Struct("<ii32s")
ENXIO = 6
READER_ITSELF = 0  # an address: the checksum of the configuration is asked for


def checksum(text):
    value = 0xCBF29CE484222325
    for byte in text:
        value = (value ^ byte) * 0x100000001B3 % 2**64
    return struct.pack("=Q", value)


def answer(request, image, indexes, configuration):
    port, address, _, page, offset, length, _ = REQUEST.unpack(request)
    if address == READER_ITSELF:
        return ANSWER.pack(0, 0, configuration), 0
    start = (256 if address == 0x51 else 0) + 128 * page + offset
    if port not in indexes or start + length > len(image):
        return ANSWER.pack(ENXIO, indexes.get(port, 0), b""), 0
    return ANSWER.pack(0, indexes[port], image[start:start + length]), length


def start_reader(program, ports):
    """The other end of a socket pair; its answers are dropped."""
    ours, its = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    process = subprocess.Popen([program, "--fd", str(its.fileno())], pass_fds=[its.fileno()],
                               env={**os.environ, "DOLM_RIC_PORTS": ports})
    its.close()
    return ours, process.pid


def main():
    address, ports, path, milliseconds, *program = sys.argv[1:]
    with open(ports, encoding="ascii") as lines:
        indexes = {int(number): socket.if_nametoindex(name)
                   for number, name in map(str.split, lines)}
    with open(path, "rb") as file:
        image = file.read()
    configuration = checksum(pathlib.Path(ports).read_bytes())
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(address)
    listener.listen()
    reader, pid = start_reader(program[0], ports) if program else (None, 0)
    print(pid, flush=True)
    client, _ = listener.accept()
    requests = read = 0
    while True:
        ready, _, _ = select.select([client, sys.stdin] + [reader] * bool(reader), [], [])
        if sys.stdin in ready:
            sys.stdin.readline()
            print([requests, read], flush=True)
        if reader in ready:
            reader.recv(4096)
        if client not in ready:
            continue
        packet = client.recv(4096)
        if not packet:
            return
        if reader:
            reader.send(packet)
        each = [answer(packet[at:at + REQUEST.size], image, indexes, configuration)
                for at in range(0, len(packet), REQUEST.size)]
        time.sleep(float(milliseconds) * len(each) / 1000)
        requests += len(each)
        read += sum(length for _, length in each)
        client.send(b"".join(bytes_ for bytes_, _ in each))


main()
