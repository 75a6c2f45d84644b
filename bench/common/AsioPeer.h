// AsioPeer.h - a stream of Boost.Asio, used as its users do: asynchronous, one thread, and two
// buffers, of which one is being written while the other is being filled.
#pragma once

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/write.hpp>
#include <utility>

#include "Bench.h"
#include "Frame.h"

namespace bench {

inline void Check(const boost::system::error_code& error) {
  if (error) Fail("asio: " + error.message());
}

template <class Stream>
class AsioConnection {
 public:
  explicit AsioConnection(Stream stream) : stream_(std::move(stream)) {}

  bool HasRoom(std::size_t size) const { return filling_->HasRoom(size); }

  // Gathers; Flush() or the end of a write sends it.
  void Add(const char* message, std::size_t size) { filling_->Add(message, size); }

  // Writes what is gathered, now or when the write under way has ended. Calls `written` after each
  // write, when the next one has been started.
  template <class Written>
  void Flush(Written written) {
    if (!writing_->IsEmpty() || filling_->IsEmpty()) return;
    std::swap(writing_, filling_);
    boost::asio::async_write(
        stream_, boost::asio::buffer(writing_->Data(), writing_->Size()),
        [this, written](const boost::system::error_code& error, std::size_t count) {
          Check(error);
          writing_->Consume(count);
          Flush(written);
          written();
        });
  }

  // Hands each message to `take` until it returns false; after each read calls `parsed`.
  template <class Take, class Parsed>
  void Read(Take take, Parsed parsed) {
    stream_.async_read_some(
        boost::asio::buffer(buffer_.WritePtr(), buffer_.Room()),
        [this, take, parsed](const boost::system::error_code& error, std::size_t count) {
          Check(error);
          const bool go = buffer_.Added(count, take);
          parsed();
          if (go) Read(take, parsed);
        });
  }

 private:
  Stream stream_;
  std::array<SendBatch, 2> batches_;
  SendBatch* filling_ = &batches_[0];
  SendBatch* writing_ = &batches_[1];
  ReceiveBuffer buffer_;
};

// Over says over what: Accept(context, options, control) and Connect(context, options) give a
// connected stream.
template <class Over>
class AsioPeer {
 public:
  static int Run(int argc, char** argv) {
    return Main(argc, argv, {"asio", Receive, Send, Echo, Ask});
  }

 private:
  static void Receive(const Options& options, const Control& control, Tally& tally) {
    boost::asio::io_context context(1);
    AsioConnection connection(Over::Accept(context, options, control));
    Incoming incoming(options, tally);
    connection.Read(
        [&](const char* message, std::size_t size) { return incoming.Take(message, size); }, [] {});
    context.run();
    control.SendReport(tally.meter.measured);
    control.WaitForParent();
  }

  static void Send(const Options& options, const Control&, Sending& sending) {
    boost::asio::io_context context(1);
    AsioConnection connection(Over::Connect(context, options));
    sending.Start();
    Outgoing outgoing(options, sending);
    bool more = outgoing.Next();
    const auto fill = [&] {
      while (more && connection.HasRoom(options.size)) {
        connection.Add(outgoing.Message().data(), options.size);
        more = outgoing.Next();
      }
    };
    fill();
    connection.Flush(fill);
    fill();  // the second buffer, while the first is being written
    context.run();
  }

  static void Echo(const Options& options, const Control& control) {
    boost::asio::io_context context(1);
    AsioConnection connection(Over::Accept(context, options, control));
    connection.Read(
        [&](const char* message, std::size_t size) {
          const bool last = GetStamp(message).kind == Kind::kLast;
          connection.Add(message, size);
          return !last;
        },
        [&] { connection.Flush([] {}); });
    context.run();
    control.WaitForParent();
  }

  static void Ask(const Options& options, const Control&, RoundTrips& trips) {
    boost::asio::io_context context(1);
    AsioConnection connection(Over::Connect(context, options));
    const auto ask = [&] {
      if (!trips.Next()) return false;
      connection.Add(trips.Message().data(), options.size);
      connection.Flush([] {});
      return true;
    };
    ask();
    connection.Read(
        [&](const char* message, std::size_t size) {
          trips.Take(message, size);
          return ask();
        },
        [] {});
    context.run();
  }
};

}  // namespace bench
