"""A JACK client that prints the messages at its input port: the frame in the cycle, and the bytes. jack_midi_dump prints
them alike, but takes none of more than 128 bytes.

    jack_receiver.py NAME
"""
import ctypes
import queue
import signal
import sys


class Event(ctypes.Structure):
    _fields_ = [("time", ctypes.c_uint32), ("size", ctypes.c_size_t), ("buffer", ctypes.c_void_p)]


jack = ctypes.CDLL("libjack.so.0")
jack.jack_client_open.restype = jack.jack_port_register.restype = jack.jack_port_get_buffer.restype = ctypes.c_void_p
client = ctypes.c_void_p(jack.jack_client_open(sys.argv[1].encode(), 1, None))  # 1: never starts a server
port = ctypes.c_void_p(jack.jack_port_register(client, b"input", b"8 bit raw midi", ctypes.c_ulong(1),  # an input
                                               ctypes.c_ulong(0)))
messages = queue.SimpleQueue()


@ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_uint32, ctypes.c_void_p)
def process(frames, _):
    buffer, event, number = ctypes.c_void_p(jack.jack_port_get_buffer(port, frames)), Event(), 0
    while jack.jack_midi_event_get(ctypes.byref(event), buffer, number) == 0:
        messages.put((event.time, ctypes.string_at(event.buffer, event.size)))
        number += 1
    return 0


signal.signal(signal.SIGTERM, lambda *_: messages.put(None))
jack.jack_set_process_callback(client, process, None)
jack.jack_activate(client)
while message := messages.get():
    print(f"{message[0]}: {message[1].hex(' ')}", flush=True)
jack.jack_client_close(client)  # or the server would wait for it
