"""CRC-32C, the Castagnoli polynomial, reflected."""


def _of_byte(byte):
    for _ in range(8):
        byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
    return byte


_TABLE = [_of_byte(byte) for byte in range(256)]


def crc32c(data):
    crc, table = 0xFFFFFFFF, _TABLE
    for byte in data:
        crc = crc >> 8 ^ table[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFFFFFF if data else 0


def short_crc32c(data):
    crc = crc32c(data)
    return (crc ^ crc >> 16) & 0xFFFF
