"""Sends hostile multicast DNS records (RFC 6762) on the network of a test.

    mdns.py ADDRESS KIND   sends datagrams of that kind, or "aliases" of all kinds, from that address until it is ended
"""
import itertools
import socket
import struct
import sys
import time

A, CNAME, PTR, SRV = 1, 5, 12, 33
MIDI, MARKER = ("_apple-midi", "_udp", "local"), ("_tessarylink", "_tcp", "local")


def name(*labels):
    encoded = [label.encode() for label in labels]
    return b"".join(bytes([len(label)]) + label for label in encoded) + b"\0"


def record(owner, kind, ttl, data, unique=False):
    return owner + struct.pack("!HHIH", kind, 0x8001 if unique else 1, ttl, len(data)) + data


def datagrams(records, size=1300):
    """Packs records into responses of about `size` bytes each."""
    packet, count = b"", 0
    for each in records:
        if packet and len(packet) + len(each) > size:
            yield struct.pack("!6H", 0, 0x8400, 0, count, 0, 0) + packet
            packet, count = b"", 0
        packet, count = packet + each, count + 1
    yield struct.pack("!6H", 0, 0x8400, 0, count, 0, 0) + packet


class Sender:
    def __init__(self, address):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
        self._socket.bind(("", 5353))

    def send(self, datagram):
        self._socket.sendto(datagram, ("224.0.0.251", 5353))


def service(instance, host, kind=MIDI):
    """The records of a service: the program looks up the service and its host at once."""
    return [record(name(*kind), PTR, 120, name(instance, *kind)),
            record(name(instance, *kind), SRV, 120, struct.pack("!HHH", 0, 0, 5004) + host, True)]


def alias(owner, target, ttl=120, unique=False):
    return record(owner, CNAME, ttl, target, unique)


def loop(number, length):
    """A service whose host is a cycle of aliases."""
    hosts = [name(f"loop-{number}-{each}", "local") for each in range(length)]
    return service(f"Loop {number}", hosts[0]) + [
        alias(host, hosts[(each + 1) % length]) for each, host in enumerate(hosts)]


def passing(number, owner, kind, data):
    """Three steps: an alias whose target expires after a second; an alias that expires; an alias that changes."""
    target = name(f"short-{number}", "local")
    return [[alias(owner, target), record(target, kind, 1, data)],
            [alias(owner, name(f"other-{number}", "local"), ttl=1, unique=True)],
            [alias(owner, name(f"third-{number}", "local"), unique=True)]]


def host_passes(number):
    host = name(f"passing-{number}", "local")
    return [service(f"Passing {number}", host) + step for step in passing(number, host, A, b"\x0a\x4d\x09\x09")]


def instance_passes(number):
    instance = name(f"Instance {number}", *MIDI)
    place = struct.pack("!HHH", 0, 0, 5004) + name(f"passing-{number}", "local")
    return [[record(name(*MIDI), PTR, 120, instance)] + step for step in passing(number, instance, SRV, place)]


def type_passes(number, kind=MIDI):
    return passing(number, name(*kind), PTR, name(f"Type {number}", *kind))


def flood(number, count=20_000, ttl=0x7FFFFFFF):
    """Records that are kept for years."""
    return [[record(name(f"{number * count + each:07x}", "f", "local"), A, ttl, b"\x0a\x4d\x09\x09")
             for each in range(count)]]


def names(_, count=9_500):
    """Services that are listed for years, before all others by name."""
    return [[record(name(*MIDI), PTR, 0x7FFFFFFF, name(f"!{each:06d}", *MIDI)) for each in range(count)]]


# Each kind maps a number to groups of records. Each group is sent in separate datagrams.
ALIASES = {
    "itself": lambda number: [loop(number, 1)],
    "two": lambda number: [loop(number, 2)],
    "three": lambda number: [loop(number, 3)],
    "host": host_passes,
    "instance": instance_passes,
    "type": type_passes,
    "marker": lambda number: type_passes(number, MARKER),
    "type-itself": lambda number: [[alias(name(*MIDI), name(*MIDI))]],
    "instance-itself": lambda number: [[record(name(*MIDI), PTR, 120, name(f"Self {number}", *MIDI)),
                                        alias(name(f"Self {number}", *MIDI), name(f"Self {number}", *MIDI))]],
    "many": lambda number: [[alias(name(f"many-{number}-{each}", "local"), name(f"many-{number}-{each + 1}", "local"))
                             for each in range(10_000)] + loop(number, 1)],
}


def main(address, kind):
    out = Sender(address)
    kinds = ALIASES.values() if kind == "aliases" else [(ALIASES | {"flood": flood, "names": names})[kind]]
    for number in itertools.count():
        for make in kinds:
            for group in make(number):
                for datagram in datagrams(group):
                    out.send(datagram)
            time.sleep(0.1)
        print("sent", flush=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
