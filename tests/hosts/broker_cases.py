#!/usr/bin/env python3
"""The example broker against hostile and real clients, one table of cases per group.

  broker_cases.py robustness BROKER   raw sockets: malformed streams, queue and memory limits, the
                                      retained store, time-outs, what a server must refuse, the short
                                      acknowledgements (run with the broker under AddressSanitizer)
  broker_cases.py raw BROKER          raw streams cut the way a network may cut them, streams that
                                      end inside a packet, malformed streams (also under ASan)
  broker_cases.py plain BROKER        Python paho (MQTT v5) as the client, and the descriptor limit,
                                      which the sanitizers' own checks run into (a plain build)

Every wait polls for its outcome under a generous deadline, so a loaded machine only makes a case
slower. Each case gets a broker of its own, started with the options the case names."""
import functools
import os
import re
import resource
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

DEADLINE = 20.0  # seconds any single outcome may take on a loaded machine


def poll(outcome, what):
    """What outcome() returns once it is truthy, asked every 50 ms until the deadline."""
    end = time.monotonic() + DEADLINE
    while not (result := outcome()):
        assert time.monotonic() < end, f"no {what} in time"
        time.sleep(0.05)
    return result


# ---- Raw MQTT v5 packets ----

def varint(n):
    out = bytearray()
    while True:
        n, digit = n >> 7, n & 0x7F
        out.append(digit | (0x80 if n else 0))
        if not n:
            return bytes(out)


def packet(first, body=b""):
    return bytes([first]) + varint(len(body)) + body


def utf8(text):
    data = text.encode()
    return struct.pack(">H", len(data)) + data


def connect(client_id, keep_alive=60, props=b""):
    return packet(0x10, utf8("MQTT") + bytes([5, 2]) + struct.pack(">H", keep_alive) + varint(len(props)) + props +
                  utf8(client_id))


def subscribe(packet_id, topic_filter, options):
    return packet(0x82, struct.pack(">H", packet_id) + b"\0" + utf8(topic_filter) + bytes([options]))


def publish(topic, payload, qos=0, packet_id=1, props=b"", retain=False):
    ident = struct.pack(">H", packet_id) if qos else b""
    return packet(0x30 | qos << 1 | retain, utf8(topic) + ident + varint(len(props)) + props + payload)


class Raw:
    """One client connection on a raw socket, reading whole packets."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=DEADLINE)
        self.buffer = b""

    def send(self, data):
        self.sock.sendall(data)

    def read(self):
        """The next packet as (first byte, body), or None once the broker closed the connection."""
        end = time.monotonic() + DEADLINE
        while (whole := self.take_whole_packet()) is None:
            self.sock.settimeout(max(end - time.monotonic(), 0.01))
            try:
                chunk = self.sock.recv(1 << 16)
            except (ConnectionResetError, BrokenPipeError):
                chunk = b""
            except socket.timeout:
                raise AssertionError("no packet in time")
            if not chunk:
                return None
            self.buffer += chunk
        return whole

    def take_whole_packet(self):
        """The first packet of the buffer as (first byte, body), taken from it; None while it is partial."""
        length, at = 0, 1
        while at < len(self.buffer):
            length |= (self.buffer[at] & 0x7F) << 7 * (at - 1)
            at += 1
            if not self.buffer[at - 1] & 0x80:
                if len(self.buffer) < at + length:
                    return None
                first, body, self.buffer = self.buffer[0], self.buffer[at:at + length], self.buffer[at + length:]
                return first, body
        return None

    def until(self, packet_type):
        """Reads until a packet of the type; returns it, or None when the connection closed first."""
        while (got := self.read()) is not None and got[0] >> 4 != packet_type:
            pass
        return got

    def connected(self, client_id, **kwargs):
        self.send(connect(client_id, **kwargs))
        got = self.until(2)
        assert got and got[1][1] == 0, f"CONNACK {got}"
        return self

    def subscribed(self, topic_filter, qos):
        self.send(subscribe(1, topic_filter, qos))
        assert self.until(9), "no SUBACK"
        return self

    def ping_seconds(self):
        start = time.monotonic()
        self.send(b"\xc0\x00")
        assert self.until(13), "no PINGRESP"
        return time.monotonic() - start

    def close(self):
        self.sock.close()


def disconnect_reason(client):
    """The reason of the DISCONNECT the broker sends, its connection closing behind it."""
    got = client.until(14)
    assert got is not None, "closed without DISCONNECT"
    assert client.read() is None, "the connection stayed open"
    return got[1][0]


def topic_and_payload(first, body):
    """What a PUBLISH carries (its property block under 128 bytes)."""
    topic_end = 2 + (body[0] << 8 | body[1])
    properties = topic_end + (2 if first & 6 else 0)
    return body[2:topic_end].decode(), body[properties + 1 + body[properties]:]


def publishes_before_pingresp(client):
    """Topic and payload of the PUBLISHes the client gets before the answer to a PINGREQ it sends now."""
    client.send(b"\xc0\x00")
    publishes = []
    while (got := client.read()) and got[0] >> 4 == 3:
        publishes.append(topic_and_payload(*got))
    assert got and got[0] >> 4 == 13, f"{got} instead of a PUBLISH or PINGRESP"
    return publishes


# ---- The broker under test ----

class Broker:
    def __init__(self, binary, *options, nofile=None):
        self.trace = tempfile.NamedTemporaryFile(prefix="broker-trace-")
        limit = (lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))) if nofile else None
        self.process = subprocess.Popen([binary, "--port", "0", "--pools", "2", "--trace", *options],
                                        stdout=self.trace, stderr=subprocess.STDOUT, preexec_fn=limit)
        self.port = int(self.wait_for(r"^listening on 127\.0\.0\.1:(\d+)").group(1))

    def text(self):
        with open(self.trace.name, errors="replace") as trace:
            return trace.read()

    def wait_for(self, pattern, count=1):
        def last_of_enough():
            found = list(re.finditer(pattern, self.text(), re.M))
            assert len(found) >= count or self.process.poll() is None, "the broker exited:\n" + self.text()[-2000:]
            return found[-1] if len(found) >= count else None
        return poll(last_of_enough, f"{count} line(s) matching {pattern!r}")

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.terminate()
        status = self.process.wait(timeout=60)
        assert status == 0, f"the broker exited with {status}:\n" + self.text()[-3000:]

    def client(self, client_id=None, **kwargs):
        raw = Raw(self.port)
        return raw.connected(client_id, **kwargs) if client_id else raw


# ---- Robustness: raw sockets ----

def malformed_stream_stops_at_its_first_bad_byte(broker):
    watcher = broker.client("watcher")
    hostile = [broker.client(f"hostile{n}") for n in range(20)]
    for client in hostile:
        client.send(b"\xff" * 65536)
    slowest = max(watcher.ping_seconds() for _ in range(10))
    for client in hostile:
        assert disconnect_reason(client) == 0x81
    broker.wait_for(r"hostile\d+ read \d+B, 0B to the library", count=20)
    assert slowest < 2.0, f"another client's ping took {slowest:.2f} s"


def unacknowledged_messages_disconnect_with_0x97(broker, readers, messages):
    """Readers that allow one message in flight (Receive Maximum 1) and never acknowledge it: the rest
    queue up until one of the broker's limits disconnects them, while the publisher is still served."""
    lazy = [broker.client(f"lazy{n}", props=b"\x21\x00\x01").subscribed("big", 1) for n in range(readers)]
    publisher = broker.client("publisher")
    for n in range(1, messages + 1):
        publisher.send(publish("big", b"x" * 65536, 1, n))
    publisher.ping_seconds()
    broker.wait_for(r"out \S+ lazy\d DISCONNECT reason=0x97")
    broker.wait_for(r"net \S+ lazy\d closed")


def qos0_beyond_the_queue_is_dropped(broker):
    deaf = broker.client("deaf").subscribed("big/qos0", 0)
    publisher = broker.client("publisher")
    for _ in range(400):
        publisher.send(publish("big/qos0", b"y" * 65536))
    publisher.ping_seconds()
    received = len(publishes_before_pingresp(deaf))
    assert 0 < received < 400, f"{received} of 400 arrived"


# Three messages and 64 KiB at most: a topic stored again replaces its message (and its bytes); an
# empty payload frees its place, and so does a message that expires at once, which is not delivered.
def retained_store_keeps_its_limits(broker):
    publisher = broker.client("publisher")
    large, larger = b"l" * 40000, b"L" * 60000
    for topic, payload, props in [("kept/0", b"old", b""), ("kept/0", b"new", b""), ("kept/1", b"r", b""),
                                  ("kept/2", large, b""), ("kept/2", larger, b""), ("kept/3", b"no room", b""),
                                  ("kept/1", b"", b""), ("kept/gone", b"r", b"\x02\x00\x00\x00\x00"),
                                  ("kept/big", b"b" * 70000, b"")]:
        publisher.send(publish(topic, payload, props=props, retain=True))
    publisher.ping_seconds()
    kept = publishes_before_pingresp(broker.client("reader").subscribed("kept/#", 0))
    assert kept == [("kept/0", b"new"), ("kept/2", larger)], [(topic, len(payload)) for topic, payload in kept]
    publisher.send(publish("kept/3", b"in the expired one's place", retain=True))
    publisher.ping_seconds()
    assert len(publishes_before_pingresp(broker.client("again").subscribed("kept/3", 0))) == 1, "no room"


def silent_clients_meet_their_time_outs(broker):
    """A connection without CONNECT closes after the connect time-out (1 s here); a client that stays
    silent gets DISCONNECT 0x8D after one and a half times its keep alive of 1 s."""
    start = time.monotonic()
    unconnected, sleepy = broker.client(), broker.client("sleepy", keep_alive=1)
    assert unconnected.read() is None and time.monotonic() - start >= 0.9
    assert disconnect_reason(sleepy) == 0x8D and time.monotonic() - start >= 1.4


def descriptor_limit_neither_spins_nor_stops_service(broker):
    served = broker.client("served")
    extra = [Raw(broker.port) for _ in range(60)]
    broker.wait_for(r"out of descriptors")
    before = broker.cpu_seconds()
    time.sleep(2)
    busy = broker.cpu_seconds() - before
    assert busy < 1.0, f"the broker used {busy:.2f} s of CPU in 2 s"
    served.ping_seconds()
    for client in extra:
        client.close()


def server_refuses_what_it_does_not_support(broker):
    client = broker.client()
    client.send(connect("auth", props=b"\x15" + utf8("SCRAM-SHA-1")))
    got = client.until(2)
    assert got and got[1][1] == 0x8C, f"CONNACK {got}"
    for name, bad, reason in [("retain-handling-3", subscribe(1, "a", 0x30), 0x82),
                              ("alias", publish("a", b"x", props=b"\x23\x00\x01"), 0x94)]:
        client = broker.client(name)
        client.send(bad)
        assert disconnect_reason(client) == reason, name
    first = broker.client("same")
    broker.client("same")
    assert disconnect_reason(first) == 0x8E


def acknowledgements_take_the_short_form(broker):
    client = broker.client("self").subscribed("loop", 2)
    client.send(publish("loop", b"q2", 2, 7))
    seen = {}
    while len(seen) < 4:
        first, body = client.read()
        seen[first >> 4] = packet(first, body)
        if first >> 4 == 3:
            client.send(packet(0x50, body[6:8]))  # PUBREC for the broker's identifier
        elif first >> 4 == 5:
            client.send(packet(0x62, b"\x00\x07"))  # PUBREL
    assert seen[5] == b"\x50\x02\x00\x07" and seen[6][:2] == b"\x62\x02" and seen[7] == b"\x70\x02\x00\x07", seen


def send_in_pieces(client, data, sizes):
    """Writes the bytes in pieces of the given sizes, cycling through them, pausing between writes so
    that each tends to come as a read of its own."""
    at = 0
    for n in range(len(data)):
        if at >= len(data):
            return
        client.send(data[at:at + sizes[n % len(sizes)]])
        at += sizes[n % len(sizes)]
        time.sleep(0.02)


def payloads(client, count):
    """The payloads of the next count PUBLISHes the client gets."""
    return [topic_and_payload(*client.until(3))[1] for _ in range(count)]


# The broker hands every read to the library as it came, so these cuttings go through the library's
# own reassembly. A PINGREQ given byte by byte is held with the byte before it until four have come,
# and the two-byte DISCONNECT that mosquitto_pub and paho end with waits for the broker's end mark.
def packets_byte_by_byte_and_in_odd_pieces(broker):
    watcher = broker.client("watcher").subscribed("drip/out", 1)
    drip = Raw(broker.port)
    send_in_pieces(drip, connect("drip") + b"\xc0\x00", [1])
    broker.wait_for(r"out .* drip CONNACK reason=0x00")
    send_in_pieces(drip, subscribe(1, "drip/in", 1) + publish("drip/out", b"one", 1, 2) +
                   publish("drip/out", b"two", 1, 3) + publish("drip/out", b"three"), [3, 1, 7, 2, 5, 11])
    for line in ("drip PINGRESP", "drip SUBACK id=1 reason=0x01", "drip PUBACK id=3 reason=0x00"):
        broker.wait_for("out .* " + line)
    assert payloads(watcher, 3) == [b"one", b"two", b"three"]
    assert len(re.findall(r" read 1B, ", broker.text())) >= 10, "the bytes did not come one read each"
    broker.client("back").send(publish("drip/in", b"back"))
    broker.wait_for(r'out .* drip PUBLISH topic="drip/in" qos=0 payload=4B')
    drip.send(b"\xe0\x00")
    drip.close()
    broker.wait_for(r"in .* drip DISCONNECT reason=0x00 size=2B")
    broker.wait_for(r"net .* drip closed")


def input_ending_behind_a_burst_or_inside_a_packet(broker):
    watcher = broker.client("watcher").subscribed("burst/out", 0)
    burst = Raw(broker.port)
    burst.send(connect("burst") + b"".join(publish("burst/out", b"m%d" % n) for n in range(100)))
    burst.close()
    assert payloads(watcher, 100) == [b"m%d" % n for n in range(100)], "lost, reordered or changed"
    broker.wait_for(r"net \S+( burst)? input ended at a packet boundary: end mark fed")
    partial = Raw(broker.port)
    partial.send(connect("partial") + publish("partial/out", b"x")[:4])
    broker.wait_for(r"out .* partial CONNACK")
    partial.close()
    broker.wait_for(r"partial input ended: closing at once")
    broker.wait_for(r"net .* partial closed")


# Each closes its own connection while another client keeps receiving. bad-flags: a SUBSCRIBE with
# flags 0 behind a PUBLISH, refused by the library after the PUBLISH; oversized: above the 10 MiB
# block; five-bytes: a remaining length of five bytes; ping-flags: flags only the end mark carries.
def malformed_streams_close_their_own_connection(broker):
    survivor, publisher = broker.client("survivor").subscribed("still/here", 0), broker.client("publisher")
    for name, reason, data in [("bad-flags", "0x81", publish("any/topic", b"x") + packet(0x80, subscribe(1, "a/b", 0)[2:])),
                               ("oversized", "0x95", b"\x30" + varint(0xA00001) + b"\x00\x03a/b"),
                               ("five-bytes", "0x95", b"\x30\xff\xff\xff\xff\x7f\x00\x03a/b"),
                               ("ping-flags", "0x81", b"\xcf\x00")]:
        client = broker.client(name)
        client.send(data)
        assert disconnect_reason(client) == int(reason, 16), name
        broker.wait_for(rf"net .* {name} closed")
        publisher.send(publish("still/here", b"alive after " + name.encode()))
        assert payloads(survivor, 1) == [b"alive after " + name.encode()]


ROBUSTNESS = [
    (malformed_stream_stops_at_its_first_bad_byte, []),
    (functools.partial(unacknowledged_messages_disconnect_with_0x97, readers=1, messages=100),
     ["--max-queued-bytes", "1048576"]),
    (functools.partial(unacknowledged_messages_disconnect_with_0x97, readers=1, messages=100),
     ["--max-queued-messages", "20"]),
    (qos0_beyond_the_queue_is_dropped, ["--max-queued-bytes", "1048576"]),
    (functools.partial(unacknowledged_messages_disconnect_with_0x97, readers=6, messages=15),
     ["--max-memory", "4194304"]),
    (retained_store_keeps_its_limits, ["--max-retained", "3", "--max-retained-bytes", "65536"]),
    (silent_clients_meet_their_time_outs, ["--connect-timeout", "1"]),
    (server_refuses_what_it_does_not_support, []),
    (acknowledgements_take_the_short_form, []),
    (acknowledgements_take_the_short_form, ["--body-mode", "block"]),
]
RAW_STREAMS = [(case, []) for case in (packets_byte_by_byte_and_in_odd_pieces,
                                       input_ending_behind_a_burst_or_inside_a_packet,
                                       malformed_streams_close_their_own_connection)]


# ---- Interop: Python paho, MQTT v5 ----

def plain_cases():
    import paho.mqtt.client as mqtt
    from paho.mqtt.packettypes import PacketTypes
    from paho.mqtt.properties import Properties

    def paho(broker, client_id, **connect_properties):
        events = {"messages": [], "connack": threading.Event()}
        client = mqtt.Client(client_id=client_id, protocol=mqtt.MQTTv5)
        client.on_connect = lambda c, u, f, rc, p: events["connack"].set()
        client.on_message = lambda c, u, message: events["messages"].append(message)
        properties = Properties(PacketTypes.CONNECT)
        properties.UserProperty = ("written", "first")
        for name, value in connect_properties.items():
            setattr(properties, name, value)
        client.connect("127.0.0.1", broker.port, properties=properties)
        client.loop_start()
        assert events["connack"].wait(DEADLINE), "no CONNACK"
        client.events = events
        return client

    def properties_in_pahos_order(broker):
        small = paho(broker, "small", MaximumPacketSize=200)
        _, mid = small.subscribe("sized", 1)
        broker.wait_for(rf"out \S+ small SUBACK id={mid} ")
        sender = paho(broker, "sender")
        sender.publish("sized", b"L" * 500, 1).wait_for_publish(DEADLINE)
        sender.publish("sized", b"S", 1).wait_for_publish(DEADLINE)
        poll(lambda: small.events["messages"], "message")
        assert [m.payload for m in small.events["messages"]] == [b"S"], "the Maximum Packet Size went unread"

    return [(properties_in_pahos_order, []), (descriptor_limit_neither_spins_nor_stops_service, ["nofile=48"])]


def main():
    group, binary = sys.argv[1], sys.argv[2]
    cases = {"robustness": ROBUSTNESS, "raw": RAW_STREAMS}.get(group) or plain_cases()
    failed = 0
    for case, options in cases:
        nofile = next((int(o.split("=")[1]) for o in options if o.startswith("nofile=")), None)
        broker = Broker(binary, *[o for o in options if not o.startswith("nofile=")], nofile=nofile)
        name = getattr(case, "func", case).__name__
        start = time.monotonic()
        try:
            case(broker)
            broker.stop()
            print(f"ok   {name} {' '.join(options)} ({time.monotonic() - start:.1f} s)", flush=True)
        except Exception as problem:  # every case runs; the failures are listed
            failed += 1
            print(f"FAIL {name}: {problem!r}\n{broker.text()[-1500:]}", flush=True)
            broker.process.kill()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
