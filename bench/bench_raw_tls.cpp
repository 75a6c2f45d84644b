// bench_raw_tls.cpp - what OpenSSL itself gives: TLS on a blocking TCP socket, and nothing between.
//
// Messages are gathered in a buffer of 64 KiB, which is written when it is full. OpenSSL reads by
// as much.
#include "common/Frame.h"
#include "common/TcpPort.h"
#include "common/TcpSocket.h"
#include "common/TlsSide.h"

namespace {

using namespace bench;

class Connection {
 public:
  static Connection Accept(const Options& options, const Control& control) {
    const TlsFiles files(options.dir);
    files.Make();
    std::uint16_t port = 0;
    const int listener = ListenTcp(port);
    WritePort(options.dir, port);
    control.SendReady();
    Connection connection(MakeServerContext(files, false), AcceptTcp(listener));
    ::close(listener);
    if (SSL_accept(connection.ssl_.get()) != 1) FailSsl("accept");
    return connection;
  }
  static Connection Connect(const Options& options) {
    const TlsFiles files(options.dir);
    Connection connection(MakeClientContext(files), ConnectTcp(ReadPort(options.dir)));
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(connection.ssl_.get()), "127.0.0.1");
    if (SSL_connect(connection.ssl_.get()) != 1) FailSsl("connect");
    return connection;
  }

  std::size_t Read(char* data, std::size_t size) {
    std::size_t count = 0;
    if (SSL_read_ex(ssl_.get(), data, size, &count) != 1) FailSsl("read");
    return count;
  }
  void WriteAll(SendBatch& batch) {
    std::size_t count = 0;
    if (batch.IsEmpty()) return;
    if (SSL_write_ex(ssl_.get(), batch.Data(), batch.Size(), &count) != 1) FailSsl("write");
    batch.Consume(count);
  }

 private:
  Connection(SslContext context, int fd)
      : context_(std::move(context)), ssl_(SSL_new(context_.get())) {
    SSL_set_fd(ssl_.get(), fd);
    SSL_set_read_ahead(ssl_.get(), 1);
    SSL_set_default_read_buffer_len(ssl_.get(), kBatchSize);
  }

  SslContext context_;
  Ssl ssl_;
};

void Receive(const Options& options, const Control& control, Tally& tally) {
  auto connection = Connection::Accept(options, control);
  Incoming incoming(options, tally);
  ReceiveBuffer buffer;
  const auto take = [&](const char* message, std::size_t size) {
    return incoming.Take(message, size);
  };
  while (buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), take)) {
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control&, Sending& sending) {
  auto connection = Connection::Connect(options);
  sending.Start();
  Outgoing outgoing(options, sending);
  SendBatch batch;
  while (outgoing.Next()) {
    if (!batch.HasRoom(options.size)) connection.WriteAll(batch);
    batch.Add(outgoing.Message().data(), options.size);
  }
  connection.WriteAll(batch);
}

void Echo(const Options& options, const Control& control) {
  auto connection = Connection::Accept(options, control);
  ReceiveBuffer buffer;
  SendBatch batch;
  const auto answer = [&](const char* message, std::size_t size) {
    batch.Add(message, size);
    return GetStamp(message).kind != Kind::kLast;
  };
  for (bool go = true; go;) {
    go = buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), answer);
    connection.WriteAll(batch);
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  auto connection = Connection::Connect(options);
  ReceiveBuffer buffer;
  SendBatch batch;
  const auto take = [&](const char* message, std::size_t size) {
    trips.Take(message, size);
    return false;
  };
  while (trips.Next()) {
    batch.Add(trips.Message().data(), options.size);
    connection.WriteAll(batch);
    while (buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), take)) {
    }
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"raw", Receive, Send, Echo, Ask}); }
