"""End-to-end measurements."""
