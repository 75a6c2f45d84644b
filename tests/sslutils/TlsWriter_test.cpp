// TlsWriter_test.cpp - what becomes of plain bytes and of records, one step at a time: OpenSSL
// writes into memory here, and a test hands on what it likes.
#include "sslutils/internal/TlsWriter.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <array>
#include <memory>
#include <string>

#include "MemoryBytes.h"
#include "TlsStreamPair.h"

namespace sslutils::internal {
namespace {

std::string TakeFrom(BIO* bio) {
  std::string bytes(BIO_ctrl_pending(bio), '\0');
  if (!bytes.empty()) BIO_read(bio, bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

void UseMemory(ssl_st* ssl) { SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem())); }

void Give(ssl_st* ssl, const std::string& records) {
  BIO_write(SSL_get_rbio(ssl), records.data(), static_cast<int>(records.size()));
}

class TlsWriterTest : public testing::Test {
 protected:
  TlsWriterTest() {
    const auto issued = Authority().Issue();
    EXPECT_EQ(context_.SetPrivateKey(issued.key), AW_OK);
    EXPECT_EQ(context_.SetCertificate(issued.certificate), AW_OK);
    EXPECT_EQ(context_.Prepare(), AW_OK);
    EXPECT_EQ(SetTrusted(Authority().GetPem()), AW_OK);
    TlsClientSettings settings;
    settings.serverName = "localhost";
    EXPECT_EQ(MakeClientSsl(settings, client_), AW_OK);
    server_ = context_.MakeSsl();
    for (ssl_st* ssl : {client_.get(), server_.get()}) UseMemory(ssl);
    for (int i = 0; i < 3; ++i) {
      SSL_do_handshake(client_.get());
      Give(server_.get(), TakeRecords());
      SSL_do_handshake(server_.get());
      Give(client_.get(), TakeFrom(SSL_get_wbio(server_.get())));
    }
    EXPECT_EQ(SSL_is_init_finished(server_.get()), 1);
    writer_ = std::make_unique<TlsWriter>(client_.get(), below_, counters_);
  }

  // What OpenSSL has written and nobody has handed on.
  std::string TakeRecords() { return TakeFrom(SSL_get_wbio(client_.get())); }

  // What the peer makes of records.
  std::string Decrypt(const std::string& records) {
    Give(server_.get(), records);
    std::string plain;
    std::array<char, kRecordSize> piece;
    std::size_t count = 0;
    while (SSL_read_ex(server_.get(), piece.data(), piece.size(), &count) == 1)
      plain.append(piece.data(), count);
    return plain;
  }

  std::size_t Take(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return writer_->Take(block);
  }
  void WriteBelow(const std::string& bytes, bool keep = false) {
    writer_->WriteBelow(bytes.data(), bytes.size(), keep);
  }

  TlsServer context_;
  SslPtr client_;
  SslPtr server_;
  MemoryEnd end_;
  MemoryBytes below_{end_};
  keelbase::CAWTransportCounters counters_;
  std::unique_ptr<TlsWriter> writer_;
};

TEST_F(TlsWriterTest, GathersSmallPiecesIntoOneRecord) {
  EXPECT_EQ(Take("some "), 5U);
  EXPECT_EQ(Take("words"), 5U);
  EXPECT_EQ(writer_->Gathered(), 10U);
  EXPECT_EQ(TakeRecords(), "");
  EXPECT_TRUE(writer_->Flush());
  EXPECT_EQ(writer_->Gathered(), 0U);
  EXPECT_EQ(counters_.systemCallsSent, 1U);
  EXPECT_EQ(Decrypt(TakeRecords()), "some words");
}

TEST_F(TlsWriterTest, WritesARecordThatIsFullAtOnce) {
  const std::string full(kRecordSize, 'f');
  EXPECT_EQ(Take(full + "more"), kRecordSize);
  EXPECT_EQ(writer_->Gathered(), 0U);
  EXPECT_EQ(Decrypt(TakeRecords()), full);
}

TEST_F(TlsWriterTest, FillsTheRecordThatWasBegunFirst) {
  Take("begun");
  EXPECT_EQ(Take(std::string(kRecordSize, 'f')), kRecordSize - 5);
  EXPECT_EQ(writer_->Gathered(), 0U);
  EXPECT_EQ(Decrypt(TakeRecords()), "begun" + std::string(kRecordSize - 5, 'f'));
}

TEST_F(TlsWriterTest, FlushWithNothingGatheredWritesNothing) {
  EXPECT_TRUE(writer_->Flush());
  EXPECT_EQ(TakeRecords(), "");
}

TEST_F(TlsWriterTest, KeepsWhatFindsNoRoomBelow) {
  end_.room = 4;
  WriteBelow("records");
  EXPECT_EQ(end_.sent, "reco");
  EXPECT_TRUE(writer_->IsBlocked());
  EXPECT_EQ(writer_->Queued(), 3U);
  EXPECT_EQ(counters_.queuedHighMark, 3U);
  WriteBelow(" in order");
  end_.room = 100;
  EXPECT_TRUE(writer_->WriteRest());
  EXPECT_EQ(end_.sent, "records in order");
  EXPECT_FALSE(writer_->IsBlocked());
}

TEST_F(TlsWriterTest, TakesOneRecordMoreWhileItIsBlocked) {
  end_.room = 0;
  WriteBelow("records");
  EXPECT_EQ(Take(std::string(kRecordSize, 'f')), 0U);
  EXPECT_EQ(Take(std::string(kRecordSize - 1, 'f')), kRecordSize - 1);
  EXPECT_EQ(Take("xy"), 1U);
  EXPECT_EQ(Take("y"), 0U);
  EXPECT_FALSE(writer_->Flush());
  EXPECT_EQ(TakeRecords(), "");
}

TEST_F(TlsWriterTest, WaitsForNoRoomWhenNobodyWillTellOfIt) {
  end_.room = 0;
  WriteBelow("records");
  writer_->ExpectNoRoom();
  EXPECT_FALSE(writer_->IsBlocked());
  EXPECT_EQ(Take("last words"), 10U);
  EXPECT_TRUE(writer_->Flush());
  EXPECT_EQ(Decrypt(TakeRecords()), "last words");
}

TEST_F(TlsWriterTest, SendsNothingBelowWhileItIsToKeepIt) {
  WriteBelow("records", true);
  EXPECT_EQ(end_.sent, "");
  EXPECT_EQ(writer_->Queued(), 7U);
}

TEST_F(TlsWriterTest, IsFullBehindTwoRecords) {
  end_.room = 0;
  WriteBelow(std::string(2 * kRecordSize - 1, 'r'));
  EXPECT_FALSE(writer_->IsFull());
  WriteBelow("r");
  EXPECT_TRUE(writer_->IsFull());
}

TEST_F(TlsWriterTest, FailureBelowIsTheReasonForGood) {
  end_.sendResult = AW_ERROR_FAILURE;
  WriteBelow("lost");
  EXPECT_EQ(writer_->GetError(), static_cast<long>(AW_ERROR_FAILURE));
  EXPECT_TRUE(writer_->HasFailed());
  end_.sendResult = AW_OK;
  WriteBelow("must not come behind it");
  EXPECT_EQ(end_.sent, "");
  EXPECT_EQ(Take("more"), 4U);  // told at the next flush
  EXPECT_FALSE(writer_->Flush());
  EXPECT_EQ(Take(std::string(2 * kRecordSize, 'f')), kRecordSize - 4);
  EXPECT_EQ(Take("more"), 0U);
}

TEST_F(TlsWriterTest, EndThatTheTransportBelowTellsIsNoFailureOfItsOwn) {
  end_.sendResult = AW_ERROR_NOT_INITIALIZED;
  WriteBelow("lost");
  EXPECT_EQ(writer_->GetError(), static_cast<long>(AW_ERROR_NOT_INITIALIZED));
  EXPECT_FALSE(writer_->HasFailed());
}

TEST_F(TlsWriterTest, RestThatCannotBeSentIsToldAndIsNoReasonToReadLess) {
  end_.room = 0;
  WriteBelow(std::string(2 * kRecordSize, 'r'));
  end_.sendResult = AW_ERROR_FAILURE;
  EXPECT_FALSE(writer_->WriteRest());
  EXPECT_FALSE(writer_->IsFull());
}

TEST_F(TlsWriterTest, NothingFollowsOurEnd) {
  writer_->WriteEnd();
  EXPECT_TRUE(writer_->HasEnded());
  EXPECT_NE(TakeRecords(), "");
  WriteBelow("an answer");
  EXPECT_EQ(end_.sent, "");
  writer_->WriteEnd();
  EXPECT_EQ(TakeRecords(), "");
}

TEST_F(TlsWriterTest, EndWaitsBehindWhatWasGathered) {
  Take("last words");
  writer_->WriteEnd();
  EXPECT_FALSE(writer_->HasEnded());
  EXPECT_EQ(TakeRecords(), "");
}

TEST_F(TlsWriterTest, LeavesWhatIsEncryptedToTheTransportBelow) {
  end_.room = 0;
  WriteBelow("records");
  Take("plain");
  writer_->LeaveToLower();
  EXPECT_EQ(end_.lingerData, "records");
  EXPECT_EQ(writer_->Queued(), 0U);
}

}  // namespace
}  // namespace sslutils::internal
