// bench_zmq.cpp - ZeroMQ over its ipc transport, with --tcp over tcp: PUSH to PULL one way, PAIR
// for round trips.
#include <zmq.hpp>

#include "common/Bench.h"
#include "common/TcpPort.h"

namespace {

using namespace bench;

void Bind(zmq::socket_t& socket, const Options& options) {
  if (!options.tcp) return socket.bind("ipc://" + options.dir + "/zmq");
  socket.bind("tcp://127.0.0.1:*");
  const std::string url = socket.get(zmq::sockopt::last_endpoint);
  WritePort(options.dir, static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
}

std::string MakeUrl(const Options& options) {
  if (options.tcp) return "tcp://127.0.0.1:" + std::to_string(ReadPort(options.dir));
  return "ipc://" + options.dir + "/zmq";
}

void Receive(const Options& options, const Control& control, Tally& tally) {
  zmq::context_t context;
  zmq::socket_t socket(context, zmq::socket_type::pull);
  Bind(socket, options);
  control.SendReady();
  Incoming incoming(options, tally);
  zmq::message_t message;
  do {
    if (!socket.recv(message)) Fail("zmq: nothing received");
  } while (incoming.Take(message.data<char>(), message.size()));
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  zmq::context_t context;
  zmq::socket_t socket(context, zmq::socket_type::push);
  socket.connect(MakeUrl(options));
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) socket.send(zmq::buffer(outgoing.Message()));
  control.WaitDone();  // the last messages are sometimes lost when the socket is closed at once
}

void Echo(const Options& options, const Control& control) {
  zmq::context_t context;
  zmq::socket_t socket(context, zmq::socket_type::pair);
  Bind(socket, options);
  control.SendReady();
  zmq::message_t message;
  for (bool go = true; go;) {
    if (!socket.recv(message)) Fail("zmq: nothing received");
    go = GetStamp(message.data<char>()).kind != Kind::kLast;
    socket.send(message, zmq::send_flags::none);
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  zmq::context_t context;
  zmq::socket_t socket(context, zmq::socket_type::pair);
  socket.connect(MakeUrl(options));
  zmq::message_t answer;
  while (trips.Next()) {
    socket.send(zmq::buffer(trips.Message()));
    if (!socket.recv(answer)) Fail("zmq: nothing received");
    trips.Take(answer.data<char>(), answer.size());
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"zmq", Receive, Send, Echo, Ask}); }
