// bench_nng.cpp - nng over its ipc transport, with --tcp over tcp, PAIR sockets: faster here than
// PUSH and PULL.
#include <arpa/inet.h>
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include <cstring>

#include "common/Bench.h"
#include "common/TcpPort.h"

namespace {

using namespace bench;

void Check(int result, const char* what) {
  if (result != 0) Fail(std::string("nng: ") + what + ": " + nng_strerror(result));
}

class Socket {
 public:
  Socket() {
    Check(nng_pair0_open(&socket_), "open");
    Check(nng_socket_set_int(socket_, NNG_OPT_SENDBUF, kBuffered), "send buffer");
    Check(nng_socket_set_int(socket_, NNG_OPT_RECVBUF, kBuffered), "receive buffer");
  }
  ~Socket() { nng_close(socket_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void Listen(const Options& options) {
    nng_listener listener;
    const std::string url = options.tcp ? "tcp://127.0.0.1:0" : MakeUrl(options);
    Check(nng_listen(socket_, url.c_str(), &listener, 0), "listen");
    if (!options.tcp) return;
    nng_sockaddr address;
    Check(nng_listener_get_addr(listener, NNG_OPT_LOCADDR, &address), "address");
    WritePort(options.dir, ntohs(address.s_in.sa_port));
  }
  void Dial(const Options& options) {
    Check(nng_dial(socket_, MakeUrl(options).c_str(), nullptr, 0), "dial");
  }

  void Send(const std::vector<char>& bytes) {
    nng_msg* message = nullptr;
    Check(nng_msg_alloc(&message, bytes.size()), "allocate");
    std::memcpy(nng_msg_body(message), bytes.data(), bytes.size());
    Send(message);
  }
  void Send(nng_msg* message) { Check(nng_sendmsg(socket_, message, 0), "send"); }

  nng_msg* Receive() {
    nng_msg* message = nullptr;
    Check(nng_recvmsg(socket_, &message, 0), "receive");
    return message;
  }

 private:
  static constexpr int kBuffered = 1024;  // messages

  static std::string MakeUrl(const Options& options) {
    if (options.tcp) return "tcp://127.0.0.1:" + std::to_string(ReadPort(options.dir));
    return "ipc://" + options.dir + "/nng";
  }

  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
};

const char* GetBytes(nng_msg* message) { return static_cast<const char*>(nng_msg_body(message)); }

void Receive(const Options& options, const Control& control, Tally& tally) {
  Socket socket;
  socket.Listen(options);
  control.SendReady();
  Incoming incoming(options, tally);
  for (bool go = true; go;) {
    nng_msg* message = socket.Receive();
    go = incoming.Take(GetBytes(message), nng_msg_len(message));
    nng_msg_free(message);
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  Socket socket;
  socket.Dial(options);
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) socket.Send(outgoing.Message());
  control.WaitDone();  // closing drops what has not been sent
}

void Echo(const Options& options, const Control& control) {
  Socket socket;
  socket.Listen(options);
  control.SendReady();
  for (bool go = true; go;) {
    nng_msg* message = socket.Receive();
    go = GetStamp(GetBytes(message)).kind != Kind::kLast;
    socket.Send(message);
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  Socket socket;
  socket.Dial(options);
  while (trips.Next()) {
    socket.Send(trips.Message());
    nng_msg* answer = socket.Receive();
    trips.Take(GetBytes(answer), nng_msg_len(answer));
    nng_msg_free(answer);
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"nng", Receive, Send, Echo, Ask}); }
