// bench_asio_tcp.cpp - Boost.Asio over TCP.
#include <boost/asio/ip/tcp.hpp>

#include "common/AsioPeer.h"
#include "common/TcpPort.h"

namespace {

using boost::asio::io_context;
using boost::asio::ip::tcp;

struct OverTcp {
  static tcp::endpoint Loopback(std::uint16_t port) {
    return tcp::endpoint(boost::asio::ip::address_v4::loopback(), port);
  }
  static tcp::socket Accept(io_context& context, const bench::Options& options,
                            const bench::Control& control) {
    tcp::acceptor acceptor(context, Loopback(0));
    bench::WritePort(options.dir, acceptor.local_endpoint().port());
    control.SendReady();
    tcp::socket socket = acceptor.accept();
    socket.set_option(tcp::no_delay(true));
    return socket;
  }
  static tcp::socket Connect(io_context& context, const bench::Options& options) {
    tcp::socket socket(context);
    socket.connect(Loopback(bench::ReadPort(options.dir)));
    socket.set_option(tcp::no_delay(true));
    return socket;
  }
};

}  // namespace

int main(int argc, char** argv) { return bench::AsioPeer<OverTcp>::Run(argc, argv); }
