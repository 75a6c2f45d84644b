// TlsResumption_test.cpp - for how long sessions are resumed, on either side.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <cstring>
#include <ctime>

#include "TlsStreamPair.h"

namespace sslutils::internal {
namespace {

constexpr long kHour = 3600;

// Both sides of connections of one client to one server, in memory.
class TlsResumption : public ::testing::TestWithParam<int> {
 protected:
  struct Connection {
    bool IsResumed() const { return SSL_session_reused(client.get()) == 1; }
    SslPtr client;
    SslPtr server;
  };

  TlsResumption() {
    const auto own = Authority().Issue();
    context_.SetPrivateKey(own.key);
    context_.SetCertificate(own.certificate);
    EXPECT_EQ(context_.Prepare(), AW_OK);
    EXPECT_EQ(SetTrusted(Authority().GetPem()), AW_OK);  // also forgets earlier sessions
    settings_.serverName = "localhost";
  }

  Connection Connect() {
    Connection made;
    EXPECT_EQ(MakeClientSsl(settings_, made.client), AW_OK);
    SSL_set_max_proto_version(made.client.get(), GetParam());
    made.server = context_.MakeSsl();
    BIO* one = nullptr;
    BIO* other = nullptr;
    EXPECT_EQ(BIO_new_bio_pair(&one, 0, &other, 0), 1);
    SSL_set_bio(made.client.get(), one, one);
    SSL_set_bio(made.server.get(), other, other);
    for (int i = 0; i < 4; ++i) {
      SSL_do_handshake(made.client.get());
      SSL_do_handshake(made.server.get());
    }
    EXPECT_EQ(SSL_is_init_finished(made.server.get()), 1);
    ReadTickets(made);
    return made;
  }
  static void ReadTickets(const Connection& connection) {
    char byte = 0;
    EXPECT_LT(SSL_read(connection.client.get(), &byte, 1), 0);
  }
  static long Now() { return static_cast<long>(std::time(nullptr)); }
  // Until the newest session is resumed no more by the client.
  static long Left(const Connection& connection) {
    const SSL_SESSION* session = SSL_get_session(connection.client.get());
    return SSL_SESSION_get_time(session) + SSL_SESSION_get_timeout(session) - Now();
  }

  TlsServer context_;
  TlsClientSettings settings_;
};

INSTANTIATE_TEST_SUITE_P(Tls, TlsResumption, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) {
                           return version.param == TLS1_2_VERSION ? "v12" : "v13";
                         });

TEST_P(TlsResumption, ClientResumesForAnHourAfterTheFullHandshakeAlsoFromOneToTheNext) {
  Connection last = Connect();
  EXPECT_FALSE(last.IsResumed());
  EXPECT_GT(Left(last), kHour - 60);
  SSL_SESSION_set_time(SSL_get_session(last.client.get()), Now() - 3000);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(SSL_shutdown(last.client.get()), 0);  // a session that is cut ends
    last = Connect();
    EXPECT_TRUE(last.IsResumed());
    EXPECT_LE(Left(last), kHour - 3000);
    EXPECT_GT(Left(last), 0);
  }
}

using TlsTicket = TlsResumption;
INSTANTIATE_TEST_SUITE_P(Tls, TlsTicket, ::testing::Values(TLS1_3_VERSION),
                         [](const auto&) { return "v13"; });

// A ticket that says that its connection's full handshake was so long ago.
void SendTicket(SSL* server, std::int64_t seconds) {
  const std::int64_t then = static_cast<std::int64_t>(std::time(nullptr)) - seconds;
  EXPECT_EQ(SSL_SESSION_set1_ticket_appdata(SSL_get_session(server), &then, sizeof then), 1);
  EXPECT_EQ(SSL_new_session_ticket(server), 1);
  EXPECT_EQ(SSL_do_handshake(server), 1);
}

TEST_P(TlsTicket, ServerResumesNothingAnHourAfterTheFullHandshake) {
  const Connection first = Connect();
  SendTicket(first.server.get(), kHour + 1);
  ReadTickets(first);
  EXPECT_FALSE(Connect().IsResumed());
  EXPECT_TRUE(Connect().IsResumed());
}

TEST_P(TlsTicket, ServerKeepsTheTimeOfTheFullHandshakeFromOneTicketToTheNext) {
  const Connection first = Connect();
  SendTicket(first.server.get(), 3000);
  ReadTickets(first);
  const Connection second = Connect();
  EXPECT_TRUE(second.IsResumed());
  void* data = nullptr;
  std::size_t size = 0;
  SSL_SESSION_get0_ticket_appdata(SSL_get_session(second.server.get()), &data, &size);
  std::int64_t then = 0;
  ASSERT_EQ(size, sizeof then);
  std::memcpy(&then, data, size);
  EXPECT_LE(then, Now() - 3000);
}

}  // namespace
}  // namespace sslutils::internal
