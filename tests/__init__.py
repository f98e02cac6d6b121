"""End-to-end tests of the programs, and the long drivers stress and soak."""
