"""Judges a companion by the protocol documents, over a real link."""
