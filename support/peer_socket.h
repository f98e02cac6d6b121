#pragma once

#include <stddef.h>

#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// Sockets of the link, as both of its ends need them.

// What a Bluetooth link must have before it stands.
enum class LinkSecurity {
  kLow,     // nothing
  kMedium,  // encryption
  kHigh,    // encryption, and pairing that nobody can have stood between
};

// A Bluetooth socket that neither connects nor accepts with less than
// |security|. Without a descriptor when the system has none; errno says why.
UniqueFd OpenRfcommSocket(LinkSecurity security);

// The reason that |error|, an errno of a Bluetooth socket, has, in words, and
// what to look at.
std::string DescribeBluetoothFailure(int error);

// Small messages do not wait for each other, and a peer that has vanished
// without a word ends the connection within 30 s, idle or busy. Does nothing to
// a socket that is not of TCP.
void TuneTcpLink(int fd);

// Whether the other end of |fd| has gone. A Bluetooth socket may tell so
// without being readable.
bool HasHungUp(int fd);

// Bounds what the kernel keeps of what was written to |fd|, to about |bytes|.
// Of TCP what it has not sent yet: what is on its way must not be limited.
void LimitUnsent(int fd, size_t bytes);

}  // namespace vantrel
