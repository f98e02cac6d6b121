#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace vantrel {

// Questions to one part of the kernel over netlink (RFC 3549), each with one
// answer.
class NetlinkSocket {
 public:
  // |protocol| as socket(2) takes it; |name|, of static storage, says in the
  // log what there is not.
  NetlinkSocket(int protocol, const char* name)
      : protocol_(protocol), name_(name) {}
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  // Puts what follows the header of the answer, a message of |answer_type|,
  // into |answer| and returns 0. Otherwise an errno: what DecodeNetlinkAnswer()
  // or a system call says, EOPNOTSUPP after GiveUp(). Never waits.
  [[nodiscard]] int Ask(uint16_t type, const std::string& body,
                        uint16_t answer_type, std::string* answer);

  // Asks no more, and says so once, with |error| as the reason. For good: the
  // kernel would look for a module with every further question. Done by itself
  // where the right to ask or the protocol is missing.
  void GiveUp(int error);

 private:
  bool Open();
  int Exchange(const std::string& question, uint16_t answer_type,
               std::string* answer);

  const int protocol_;
  const char* const name_;
  UniqueFd fd_;  // kept open: later there may be no free descriptor
  uint32_t sequence_ = 0;
  bool is_given_up_ = false;
};

// |body| behind the header of a question.
std::string EncodeNetlinkQuestion(uint16_t type, const std::string& body,
                                  uint32_t sequence);
// 0, and in |body| the part of |answer| behind its header, when it is a message
// of |type|. Otherwise an errno: EAGAIN for the answer to another question than
// |sequence|, EBADMSG for what is none, or the kernel's refusal, such as ENOENT
// for what it does not know.
[[nodiscard]] int DecodeNetlinkAnswer(std::string_view answer,
                                      uint32_t sequence, uint16_t type,
                                      std::string_view* body);

// The kernel's own records are copied as they are: they never leave the
// machine.
template <typename Record>
void PutRecord(std::string* out, const Record& record) {
  out->append(reinterpret_cast<const char*>(&record), sizeof(record));
}

// False when |bytes| are fewer than that.
template <typename Record>
[[nodiscard]] bool TakeRecord(std::string_view* bytes, Record* record) {
  if (bytes->size() < sizeof(*record)) return false;
  bytes->copy(reinterpret_cast<char*>(record), sizeof(*record));
  bytes->remove_prefix(sizeof(*record));
  return true;
}

}  // namespace vantrel
