// bench_asio_tls.cpp - Boost.Asio's TLS stream over TCP.
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>

#include "common/AsioPeer.h"
#include "common/TcpPort.h"
#include "common/TlsSide.h"

namespace {

using boost::asio::io_context;
using boost::asio::ip::tcp;
namespace ssl = boost::asio::ssl;
using Stream = ssl::stream<tcp::socket>;

tcp::endpoint Loopback(std::uint16_t port) {
  return tcp::endpoint(boost::asio::ip::address_v4::loopback(), port);
}

struct OverTls {
  static Stream Accept(io_context& context, const bench::Options& options,
                       const bench::Control& control) {
    const bench::TlsFiles files(options.dir);
    files.Make();
    static ssl::context settings(bench::MakeServerContext(files, false).release());
    tcp::acceptor acceptor(context, Loopback(0));
    bench::WritePort(options.dir, acceptor.local_endpoint().port());
    control.SendReady();
    Stream stream(acceptor.accept(), settings);
    stream.next_layer().set_option(tcp::no_delay(true));
    stream.handshake(Stream::server);
    return stream;
  }
  static Stream Connect(io_context& context, const bench::Options& options) {
    const bench::TlsFiles files(options.dir);
    static ssl::context settings(bench::MakeClientContext(files).release());
    Stream stream(context, settings);
    stream.set_verify_callback(ssl::host_name_verification("127.0.0.1"));
    stream.next_layer().connect(Loopback(bench::ReadPort(options.dir)));
    stream.next_layer().set_option(tcp::no_delay(true));
    stream.handshake(Stream::client);
    return stream;
  }
};

}  // namespace

int main(int argc, char** argv) { return bench::AsioPeer<OverTls>::Run(argc, argv); }
