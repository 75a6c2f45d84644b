// bench_raw_tls_connect.cpp - connections with OpenSSL itself: each round trip has one of its own,
// with a handshake in full, or with --resume one that goes on with an earlier session.
#include "common/Frame.h"
#include "common/TcpPort.h"
#include "common/TcpSocket.h"
#include "common/TlsSide.h"

namespace {

using namespace bench;

Ssl MakeSsl(const SslContext& context, int fd) {
  Ssl ssl(SSL_new(context.get()));
  if (ssl == nullptr || SSL_set_fd(ssl.get(), fd) != 1) FailSsl("connection");
  return ssl;
}

void ReadAll(SSL* ssl, std::vector<char>& message) {
  for (std::size_t at = 0, count = 0; at < message.size(); at += count) {
    if (SSL_read_ex(ssl, &message[at], message.size() - at, &count) != 1) FailSsl("read");
  }
}

void WriteAll(SSL* ssl, const std::vector<char>& message) {
  std::size_t count = 0;
  if (SSL_write_ex(ssl, message.data(), message.size(), &count) != 1) FailSsl("write");
}

// One connection after the other.
void Echo(const Options& options, const Control& control) {
  const TlsFiles files(options.dir);
  files.Make();
  const SslContext context = MakeServerContext(files, true);
  std::uint16_t port = 0;
  const int listener = ListenTcp(port);
  WritePort(options.dir, port);
  control.SendReady();
  std::vector<char> message(options.size);
  for (bool last = false; !last;) {
    const int fd = AcceptTcp(listener);
    const Ssl ssl = MakeSsl(context, fd);
    if (SSL_accept(ssl.get()) != 1) FailSsl("accept");
    ReadAll(ssl.get(), message);
    WriteAll(ssl.get(), message);
    last = GetStamp(message.data()).kind == Kind::kLast;
    char end = 0;
    SSL_read(ssl.get(), &end, 1);  // until the client has ended the connection
    SSL_shutdown(ssl.get());
    ERR_clear_error();
    ::close(fd);
  }
  control.WaitForParent();
}

SslSession earlier;

int KeepSession(SSL*, SSL_SESSION* session) {
  earlier.reset(session);
  return 1;
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  const TlsFiles files(options.dir);
  const SslContext context = MakeClientContext(files);
  if (options.resume) {
    SSL_CTX_set_session_cache_mode(context.get(),
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context.get(), KeepSession);
  }
  const std::uint16_t port = ReadPort(options.dir);
  std::vector<char> answer(options.size);
  for (bool first = true; trips.Next(); first = false) {
    const int fd = ConnectTcp(port);
    const Ssl ssl = MakeSsl(context, fd);
    if (SSL_set1_host(ssl.get(), "server.bench.example") != 1) FailSsl("name");
    if (earlier != nullptr) SSL_set_session(ssl.get(), earlier.get());
    if (SSL_connect(ssl.get()) != 1) FailSsl("connect");
    if ((SSL_session_reused(ssl.get()) == 1) != (options.resume && !first))
      Fail("not the handshake that was asked for");
    WriteAll(ssl.get(), trips.Message());
    ReadAll(ssl.get(), answer);
    SSL_shutdown(ssl.get());
    ::close(fd);
    trips.Take(answer.data(), answer.size());
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"raw", nullptr, nullptr, Echo, Ask}); }
