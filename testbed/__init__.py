"""What tests, demonstration and measurements share: an internet and devices in
namespaces, the programs on them, and both ends of what crosses the link."""
