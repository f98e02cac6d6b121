// For unit tests and fuzz targets: how scanf reads the rows of a socket table,
// which is the definition of what a table says.
#pragma once

#include <stdio.h>

#include <sstream>
#include <string>

#include "capture/socket_table.h"

namespace vantrel {

inline bool Scan(FILE* table, tcp_row_t* row) {
  return fscanf(table,
                "%*s %08X:%04hX %08X:%04hX %2hhX %*s %*s %*s %u %*s %lu "
                "%*[^\n]\n",
                &row->address, &row->port, &row->remote_address,
                &row->remote_port, &row->state, &row->uid, &row->inode) == 7;
}
inline bool Scan(FILE* table, tcp6_row_t* row) {
  return fscanf(table,
                "%*s %32[^:]:%hX %32[^:]:%hX %2hhX %*s %*s %*s %u %*s %lu "
                "%*[^\n]\n",
                row->address, &row->port, row->remote_address,
                &row->remote_port, &row->state, &row->uid, &row->inode) == 7;
}
inline bool Scan(FILE* table, udp_row_t* row) {
  return fscanf(table, "%*s %08X:%04hX %08X:%04hX %*s %*s %*s %*s %u %*[^\n]\n",
                &row->address, &row->port, &row->remote_address,
                &row->remote_port, &row->uid) == 5;
}
inline bool Scan(FILE* table, udp6_row_t* row) {
  return fscanf(table,
                "%*s %32[^:]:%hX %32[^:]:%hX %*s %*s %*s %*s %u %*[^\n]\n",
                row->address, &row->port, row->remote_address,
                &row->remote_port, &row->uid) == 5;
}

template <typename Row>
std::string EndsToText(const Row& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.remote_address << ' '
      << r.remote_port << ' ' << r.uid;
  return out.str();
}
template <typename Row>
std::string TcpToText(const Row& r) {
  return EndsToText(r) + ' ' + std::to_string(r.state) + ' ' +
         std::to_string(r.inode);
}
inline std::string ToText(const tcp_row_t& r) { return TcpToText(r); }
inline std::string ToText(const tcp6_row_t& r) { return TcpToText(r); }
inline std::string ToText(const udp_row_t& r) { return EndsToText(r); }
inline std::string ToText(const udp6_row_t& r) { return EndsToText(r); }

// Reads the table |name| in |directory|, in which SocketTable looks, up to the
// row that does not convert. The first difference between the two readers, with
// what is left in that row, too; empty when there is none.
template <typename Row>
std::string FindDifference(const std::string& directory,
                           const std::string& name) {
  FILE* const formats = fopen((directory + "/" + name).c_str(), "rt");
  static_cast<void>(!fscanf(formats, "%*[^\n]\n"));
  const auto table = SocketTable::Open(name);
  Row expected, row;
  std::string difference;
  bool has_row = table != nullptr;
  while (has_row && difference.empty()) {
    has_row = Scan(formats, &expected);
    if (has_row != table->Next(&row) || ToText(expected) != ToText(row)) {
      difference = ToText(row) + ", and not " + ToText(expected);
    }
  }
  fclose(formats);
  return table == nullptr ? "no table" : difference;
}

// The same for every kind of row.
inline std::string FindAnyDifference(const std::string& directory,
                                     const std::string& name) {
  return FindDifference<tcp_row_t>(directory, name) +
         FindDifference<tcp6_row_t>(directory, name) +
         FindDifference<udp_row_t>(directory, name) +
         FindDifference<udp6_row_t>(directory, name);
}

}  // namespace vantrel
