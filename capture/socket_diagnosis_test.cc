#include "capture/socket_diagnosis.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/hex_testing.h"

namespace vantrel {
namespace {

// What a kernel (little-endian) was asked, and the beginning of what it said,
// of a connection of UID 10123 from port 40000 to 198.51.100.7:80.
const std::string kDiagnosisQuestion = Bytes(
    "02060000 FFFFFFFF 9C40 0050 C0A8A7EF 00000000 00000000 00000000"
    "C6336407 00000000 00000000 00000000 00000000 FFFFFFFF FFFFFFFF");
const std::string kDiagnosisAnswer = Bytes(
    "02010000 9C40 0050 C0A8A7EF 00000000 00000000 00000000"
    "C6336407 00000000 00000000 00000000 00000000 0A000000 00000000"
    "00000000 00000000 00000000 8B270000 39300000");

bool Decode(const std::string& answer, uint16_t remote_port, tcp_row_t* row) {
  // Without a byte behind it that may be read.
  const std::vector<char> exact(answer.begin(), answer.end());
  return DecodeDiagnosisAnswer({exact.data(), exact.size()}, 40000, remote_port,
                               row);
}

TEST(SocketDiagnosis, AsksAndUnderstandsTheKernel) {
  EXPECT_EQ(kDiagnosisQuestion,
            EncodeDiagnosisQuestion(Endpoint("C0A8A7EF", 40000),
                                    Endpoint("C6336407", 80)));
  tcp_row_t row;
  ASSERT_TRUE(Decode(kDiagnosisAnswer, 80, &row));
  EXPECT_EQ(1, row.state);
  EXPECT_EQ(10123u, row.uid);
  EXPECT_EQ(12345u, row.inode);
  for (size_t size = 0; size < kDiagnosisAnswer.size(); ++size) {
    EXPECT_FALSE(Decode(kDiagnosisAnswer.substr(0, size), 80, &row)) << size;
  }

  // A listener at the same port.
  EXPECT_FALSE(Decode(kDiagnosisAnswer, 81, &row));
  std::string listener = kDiagnosisAnswer;
  listener[6] = listener[7] = 0;
  EXPECT_FALSE(Decode(listener, 80, &row));
}

}  // namespace
}  // namespace vantrel
