std = "lua52"
-- What Wireshark gives its scripts.
read_globals = {
  "base", "bit", "ByteArray", "DissectorTable", "expert", "Field", "Pref", "Proto",
  "ProtoExpert", "ProtoField", "wtap",
}
