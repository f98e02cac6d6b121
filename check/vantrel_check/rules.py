"""What any message can break, in whatever check it comes."""

from .registry import rule

HEADER = rule(("Messages", "Connection header"), "All 24 bytes of the connection header come "
              "first, within 5 s, with the status 0 at offset 16.")
FRAME = rule(("Messages", "Frames"), "A frame begins with the magic `VN`, the sizes of header and "
             "payload, at most 16384 each, and the short CRC-32C of the header, all of them "
             "little-endian. The short form is `(c ^ (c >> 16)) & 0xFFFF`.")
PAYLOAD_CHECKSUM = rule(("Messages", "Frames"), "The CRC-32C of the payload is in "
                        "`Header.payload_crc32c` (field 2), which is present exactly when there "
                        "is a payload.")
MESSAGE = rule("Messages", "A message has one of the types in the table, with the fields that "
               "belong to it. Only those that go to the device come from a companion.")
HANDSHAKE = rule(("Handshake (`vantrel 5`)", "Handshake"), "The device begins. Answer with one "
                 "acknowledgement of the same version, before anything else.")
STREAM = rule("Streams", "Messages name a stream that the device has opened. Your TCP_CLOSE is "
              "sent once, after all bytes of the stream.")
OPEN = rule("Streams", "Open the connection; there is no answer for success. If it fails, send "
            "TCP_CLOSE.")
BYTES = rule("Streams", "What the remote sends goes to the device, in messages of its stream.")
CREDIT = rule("Streams", "Credit: send one acknowledgement for each write once its bytes have "
              "been handed on. The device sends at most 8 unacknowledged ones a stream.")
DATAGRAM = rule("Datagrams", "Answers and failures have the form of the protocol that the device "
                "speaks.")
