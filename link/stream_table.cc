#include "link/stream_table.h"

#include <iomanip>

#include "common/log.h"

namespace vantrel {

bool StreamTable::Add(ProxySocket::TcpConduitDelegate* conduit) {
  const uint32_t id = conduit->GetId();
  if (!streams_.emplace(id, conduit).second) {
    LOGW("[B] Duplicate stream id %u", id);
    return false;
  }
  return true;
}

ProxySocket::TcpConduitDelegate* StreamTable::Find(uint32_t id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second;
}

void StreamTable::MarkReady(uint32_t id) {
  ProxySocket::TcpConduitDelegate* const conduit = Find(id);
  if (conduit != nullptr) ready_.emplace(id, conduit);
}

bool StreamTable::Close(uint32_t id) {
  ProxySocket::TcpConduitDelegate* const conduit = Find(id);
  if (conduit == nullptr) return false;
  conduit->Close();
  streams_.erase(id);
  ready_.erase(id);
  return true;
}

bool StreamTable::Acknowledge(uint32_t id) {
  ProxySocket::TcpConduitDelegate* const conduit = Find(id);
  if (conduit == nullptr) return false;
  conduit->HandleWriteAck();
  ready_.emplace(id, conduit);
  return true;
}

void StreamTable::Dump(std::stringstream& out) const {
  out << "TCP streams:" << std::endl;
  for (const auto& [id, conduit] : streams_) {
    out << "  " << std::setw(4) << id << ": ";
    conduit->Dump(out);
  }
}

}  // namespace vantrel
