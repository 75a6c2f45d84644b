// bench_asio.cpp - Boost.Asio over a Unix socket.
#include <boost/asio/local/stream_protocol.hpp>

#include "common/AsioPeer.h"

namespace {

using boost::asio::io_context;
using boost::asio::local::stream_protocol;

struct UnixSocket {
  static stream_protocol::endpoint MakeEndpoint(const bench::Options& options) {
    return stream_protocol::endpoint(options.dir + "/asio");
  }
  static stream_protocol::socket Accept(io_context& context, const bench::Options& options,
                                        const bench::Control& control) {
    stream_protocol::acceptor acceptor(context, MakeEndpoint(options));
    control.SendReady();
    return acceptor.accept();
  }
  static stream_protocol::socket Connect(io_context& context, const bench::Options& options) {
    stream_protocol::socket socket(context);
    socket.connect(MakeEndpoint(options));
    return socket;
  }
};

}  // namespace

int main(int argc, char** argv) { return bench::AsioPeer<UnixSocket>::Run(argc, argv); }
