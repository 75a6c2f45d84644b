// messaging_proof.cpp - eight senders and one receiver in one process, ten million messages.
#include <gtest/gtest.h>

#include "ManySenders.h"
#include "ProofScale.h"

namespace zarn::test {
namespace {

TEST(MessagingProof, EachMessageOfEightSendersArrivesOnceInOrderAndIntact) {
  ExpectAllOfManySenders(static_cast<std::uint64_t>(testsupport::ProofCount(10'000'000)));
}

}  // namespace
}  // namespace zarn::test
