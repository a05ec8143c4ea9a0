#!/usr/bin/env python3
"""Writes the seed corpus of every harness into corpus/<harness>/.

Seeds are valid inputs of each format, so that fuzzing starts from the
accepted grammar and mutates outward. Run again after a format changes."""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def write(harness, name, data):
    folder = os.path.join(HERE, "corpus", harness)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def u16(v): return struct.pack("<H", v & 0xFFFF)
def u32(v): return struct.pack("<I", v & 0xFFFFFFFF)
def u64(v): return struct.pack("<Q", v & 0xFFFFFFFFFFFFFFFF)


def cci(command, payload, request=0, flags=0, seal=True):
    body = u16(0) + u16(flags) + u16(command) + u16(len(payload)) + u16(request) + payload
    crc = zlib.crc32(body) if seal else 0
    return u16(0x0100) + u32(crc) + body


# Settings
write("settings", "empty", "<Settings/>")
write("settings", "values",
      "<Settings><SendTimeout>0x10</SendTimeout><TolerateTypeNullptr>true</TolerateTypeNullptr>"
      "<LogFileName>logs/a.log</LogFileName><AppendLog>TRUE</AppendLog>"
      "<MaxTransferCount>8</MaxTransferCount><EnumerationInterval>250</EnumerationInterval>"
      "<RecordFrameStartFrameID>3</RecordFrameStartFrameID><XMLCacheFolder/></Settings>")
write("settings", "ports",
      "<Settings><Ports><Port ID='a'><CSILaneCount>2</CSILaneCount></Port>"
      "<Port ID='b'><CSIClockFrequency>0x10</CSIClockFrequency></Port></Ports></Settings>")
write("settings", "documents",
      "<Settings><RemoteDeviceXMLFile CameraID='cam1'>cam.xml</RemoteDeviceXMLFile>"
      "<RemoteDeviceXMLAddress CameraID='cam1'>0x1000</RemoteDeviceXMLAddress>"
      "<SystemXMLFile>system.xml</SystemXMLFile></Settings>")
write("settings", "registers",
      "<Settings><ASIC><RegWrite Address='1F0' Name='first'>-12</RegWrite>"
      "<RegWrite Address='20'>5</RegWrite></ASIC></Settings>")

# Virtual camera descriptions
with open(os.path.join(HERE, "..", "..", "sim", "examples", "two-cameras.ini")) as f:
    write("description", "two-cameras.ini", f.read())
write("description", "all-keys.ini", """[system]
board = tegra
driver_version = 1.0.8.0
usrptr_alignment = 256
min_announced_frames = 3

[camera0]
node = video0
port = 2
bus = 2
address = 0x3c
width = 640
height = 480
width_max = 2592
height_max = 1944
pixel_format = Mono12p
frame_rate = 30
bus_speed = 100000
bus_timing = 0
leader_trailer = 1
chunk_data = 1
manifest_entries = 3
string_encoding = 1
""")

# Document URLs
for i, url in enumerate([
        "local:camera.xml;10000;2A00?SchemaVersion=1.1.0",
        "Local:///Vendor%20Camera.zip;0x8000000;0x1F4",
        "file:///usr/share/genicam/camera.xml?SchemaVersion=1.0",
        "file:camera.xml",
        "http://example.com/xml/camera.xml?SchemaVersion=1.1.0",
]):
    write("url", "url%d" % i, url)

# CCI packets
write("cci_packet", "read-ack", cci(0x0801, bytes(range(16)), request=7))
write("cci_packet", "write-ack", cci(0x0803, u16(0) + u16(4), request=8))
write("cci_packet", "pending", cci(0x0805, u16(0) + u16(100), request=9))
write("cci_packet", "bad-crc", cci(0x0801, b"\1\2\3\4", seal=False))

# GenCP: an operation (address, buffer size, which), then the device's answers,
# each a mode byte (1 answer, 2 matching request ID, 4 sealed, 8 built header),
# a length and bytes, or for built headers: payload length, payload, command, status.
def built(payload, command, status=0):
    return bytes([1 | 2 | 4 | 8]) + u32(len(payload)) + payload + u16(command) + u16(status)


def op(address, size, which):
    return u32(address) + u32(size - 1) + u32(which)


write("gencp", "read-version", op(0, 4, 6) + built(u32(0x00010002), 0x0801))
write("gencp", "read-pending-then-data", op(0x100, 8, 0) + built(u16(0) + u16(5), 0x0805) + built(bytes(8), 0x0801))
write("gencp", "write-ack", op(0x200, 4, 1) + built(u16(0) + u16(4), 0x0803))
write("gencp", "error-status", op(0, 4, 2) + built(b"", 0x0801, 0x8003))
write("gencp", "manifest", op(0, 1, 7) + u32(0) + built(u64(1), 0x0801) + built(bytes(64), 0x0801))

# Leader, trailer and payload of a frame
leader = u16(0) + u16(0) + u32(0x4C454144) + u64(42) + u16(0) + u16(1) + u64(123456) + u32(0x01080001) \
    + u32(64) + u32(16) + u32(0) + u32(0) + u16(0) + u16(0)
trailer = u32(0x54524149) + u32(0) + u64(42) + u16(0) + u16(0) + u32(16) + u32(0)
write("frame_info", "image", u32(0) + u32(len(leader)) + leader + u32(len(trailer)) + trailer + bytes(64 * 16))
chunk_leader = leader[:18] + u16(0x4001) + leader[20:]
chunks = bytes(16) + u32(1) + u32(16) + u32(42) + u32(0) + u32(2) + u32(8)
write("frame_info", "chunks", u32(0) + u32(len(chunk_leader)) + chunk_leader + u32(len(trailer) + 4)
      + trailer + u32(0x12) + chunks)
write("frame_info", "short-leader", u32(2) + u32(20) + leader[:20] + u32(0) + bytes(8))

# Chunk data: chunks laid end to end, each followed by its ID and length
write("chunk_data", "two-chunks", bytes(16) + u32(1) + u32(16) + u64(42) + u32(2) + u32(8))
write("chunk_data", "empty-chunk", u32(7) + u32(0))
write("chunk_data", "misaligned", bytes(6) + u32(1) + u32(6))

# Event packets: max payload, acknowledges, then packets (0 built, payload
# length, payload, command choice, flags, request ID), then read sizes.
def event(request, event_id, data=b"", flags=0x4000):
    payload = u16(0) + u16(event_id) + u64(0x1122334455667788) + data
    return b"\0" + u32(len(payload)) + payload + b"\1" + u16(flags) + u16(request)


write("event_data", "two-events", u32(256) + b"\1" + event(1, 0x9001, b"abcd") + event(2, 0x9002)
      + u32(64) + u32(64))
write("event_data", "repeat", u32(256) + b"\1" + event(1, 0x9001) + event(1, 0x9001, flags=0xC000) + u32(64))
write("event_data", "raw-packet", u32(64) + b"\0" + b"\1" + u32(40) + cci(0x0C00, bytes(12), request=3))

# GenTL call sequences: each choice is 2 bytes. Chain (camera 0 or 1), then
# waits for new buffers, stop, close.
def choices(*values): return b"".join(u16(v) for v in values)


chain0 = choices(5, 0, 0)
chain1 = choices(5, 0, 1)
wait = choices(2, 1, 1, 1, 0, 3, 512, 1, 19)
stop = choices(1, 1, 1, 1, 0, 1, 7, 0)
# Queues the newest, second and third newest buffer again.
requeue = b"".join(choices(1, 1, 1, 1, back, 1, 2) for back in (0, 1, 2))
write("gentl_calls", "stream-camera0", chain0 + wait * 3 + requeue + wait * 3 + stop)
write("gentl_calls", "stream-camera1", chain1 + wait * 3 + requeue + wait * 3 + stop)
write("gentl_calls", "chain-twice", chain0 + chain0 + wait)
