// TlsSessions_test.cpp - which sessions are kept, and which one is handed out.
#include "TlsSessions.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "TlsContext.h"

namespace sslutils::internal {
namespace {

SessionPtr MakeSession(const std::string& id, int version = TLS1_3_VERSION, long age = 0) {
  StartOpenSsl();
  SessionPtr session(SSL_SESSION_new());
  SSL_SESSION_set1_id(session.get(), reinterpret_cast<const unsigned char*>(id.data()),
                      static_cast<unsigned>(id.size()));
  SSL_SESSION_set_protocol_version(session.get(), version);
  SSL_SESSION_set_timeout(session.get(), 100);
  SSL_SESSION_set_time(session.get(), static_cast<long>(std::time(nullptr)) - age);
  return session;
}

std::string IdOf(const SessionPtr& session) {
  if (session == nullptr) return "none";
  unsigned length = 0;
  const unsigned char* id = SSL_SESSION_get_id(session.get(), &length);
  return {reinterpret_cast<const char*>(id), length};
}

TEST(TlsSessions, OneOfTls13IsHandedOutOnceTheNewestFirst) {
  TlsSessions sessions;
  sessions.Add("peer", MakeSession("old"));
  sessions.Add("peer", MakeSession("new"));
  EXPECT_EQ(IdOf(sessions.Take("other")), "none");
  EXPECT_EQ(IdOf(sessions.Take("peer")), "new");
  EXPECT_EQ(IdOf(sessions.Take("peer")), "old");
  EXPECT_EQ(IdOf(sessions.Take("peer")), "none");
}

TEST(TlsSessions, OneOfTls12IsHandedOutAgain) {
  TlsSessions sessions;
  sessions.Add("peer", MakeSession("same", TLS1_2_VERSION));
  EXPECT_EQ(IdOf(sessions.Take("peer")), "same");
  EXPECT_EQ(IdOf(sessions.Take("peer")), "same");
}

TEST(TlsSessions, OneThatIsTooOldIsPassedOver) {
  TlsSessions sessions;
  sessions.Add("peer", MakeSession("good", TLS1_3_VERSION, 90));
  sessions.Add("peer", MakeSession("too old", TLS1_3_VERSION, 101));
  EXPECT_EQ(IdOf(sessions.Take("peer")), "good");
  EXPECT_EQ(IdOf(sessions.Take("peer")), "none");
}

TEST(TlsSessions, OfOnePeerTheNewestFourAreKept) {
  TlsSessions sessions;
  for (const char* id : {"a", "b", "c", "d", "e"}) sessions.Add("peer", MakeSession(id));
  for (const char* id : {"e", "d", "c", "b", "none"}) EXPECT_EQ(IdOf(sessions.Take("peer")), id);
}

TEST(TlsSessions, PeerWhoseLastSessionIsOldestMakesRoomForTheThousandAndTwentyFifth) {
  TlsSessions sessions;
  for (int peer = 0; peer < 1024; ++peer) sessions.Add(std::to_string(peer), MakeSession("first"));
  sessions.Add("0", MakeSession("second"));
  sessions.Add("one more", MakeSession("first"));
  EXPECT_EQ(IdOf(sessions.Take("0")), "second");
  EXPECT_EQ(IdOf(sessions.Take("1")), "none");
  EXPECT_EQ(IdOf(sessions.Take("2")), "first");
  EXPECT_EQ(IdOf(sessions.Take("one more")), "first");
}

}  // namespace
}  // namespace sslutils::internal
