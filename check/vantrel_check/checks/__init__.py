"""The checks by subject. Importing this package registers all of them."""

from . import handshake, streams, acknowledgements, closing, datagrams  # noqa: F401
from . import names, measurements, bad_input, endings  # noqa: F401
